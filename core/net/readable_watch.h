#ifndef CORE_NET_READABLE_WATCH_H_
#define CORE_NET_READABLE_WATCH_H_

#include <functional>
#include <memory>

#include "absl/status/statusor.h"
#include "core/net/event_loop.h"

namespace varnic::net {

// Tells when there is something to read from a file descriptor that this room knows nothing of, a
// socket of another kind for example. Owns no descriptor. Belongs to the loop's thread.
class ReadableWatch {
 public:
  // Runs `on_readable` on the loop, and again as long as there is something left to read, until the
  // result is destroyed, as it may be in `on_readable`. The loop must outlive the result, and `fd`
  // must stay open as long; files on disk are not for this. An error if the kernel cannot watch it.
  static absl::StatusOr<std::unique_ptr<ReadableWatch>> Start(EventLoop& loop, int fd,
                                                              std::function<void()> on_readable);
  ReadableWatch(const ReadableWatch&) = delete;
  ReadableWatch& operator=(const ReadableWatch&) = delete;
  ~ReadableWatch();

 private:
  class Impl;

  explicit ReadableWatch(std::unique_ptr<Impl> impl);

  std::unique_ptr<Impl> impl_;
};

}  // namespace varnic::net

#endif  // CORE_NET_READABLE_WATCH_H_
