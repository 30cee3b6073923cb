#ifndef TESTS_SOAK_SOAKED_HOST_H_
#define TESTS_SOAK_SOAKED_HOST_H_

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "core/client/client.h"
#include "core/net/event_loop.h"
#include "core/server/rpc_server.h"
#include "rpc/profile/profile.client.h"

namespace varnic {

// What a host says about itself.
struct HostFigures {
  std::int64_t heap_bytes = 0;  // Allocated and not freed; 0 where a sanitizer has the heap.
  std::int64_t rss_bytes = 0;
  std::int64_t threads = 0;
  std::int64_t descriptors = 0;
  std::int64_t streams = 0;
  std::int64_t subscribed_keys = 0;
  std::int64_t callback_keys = 0;  // That somebody answers for.
  std::int64_t conflated_events = 0;
};

// A host in a process of its own, so that what it holds can be told from what its clients hold.
// Make it before the first thread.
class SoakedHost {
 public:
  explicit SoakedHost(const ServerOptions& options = {});
  SoakedHost(const SoakedHost&) = delete;
  SoakedHost& operator=(const SoakedHost&) = delete;
  // Ends the process.
  ~SoakedHost();

  const std::string& address() const { return address_; }

  // Each is one call, and asks only after what the host has read before it.
  HostFigures Figures();
  // Publishes an event of about `bytes` under `key`; returns how many streams took it.
  std::size_t Publish(const std::string& key, std::size_t bytes = 0);

  // Asks until the answer is the one that the caller waits for.
  HostFigures WaitUntil(const std::function<bool(const HostFigures&)>& holds);

 private:
  const std::string address_;
  pid_t process_ = -1;
  net::EventLoop loop_;
  Client client_{loop_, address_};
  ::rpc::ProfileClient profiles_{client_};
};

}  // namespace varnic

#endif  // TESTS_SOAK_SOAKED_HOST_H_
