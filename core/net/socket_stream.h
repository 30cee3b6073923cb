#ifndef CORE_NET_SOCKET_STREAM_H_
#define CORE_NET_SOCKET_STREAM_H_

#include <functional>
#include <memory>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "core/net/address.h"
#include "core/net/byte_stream.h"
#include "core/net/event_loop.h"

namespace varnic::net {

// Accepts connections on one address: a Unix-domain socket, or TCP on loopback. RPC thread only.
class Listener {
 public:
  using OnAccept = std::function<void(std::unique_ptr<ByteStream>)>;

  // Listens at once. The socket file of a Unix address is made with mode 0600; one that a dead
  // process has left behind is replaced, one on which somebody listens is not. TCP is refused
  // anywhere but on a loopback address: what goes over it is neither encrypted nor authenticated.
  static absl::StatusOr<std::unique_ptr<Listener>> Listen(EventLoop& loop, const Address& address,
                                                          OnAccept on_accept);
  virtual ~Listener() = default;

  // Where it listens, with the port that the system has picked.
  virtual const Address& address() const = 0;
};

// Connects to `address`, and then calls `done` once, from the loop, unless the returned object is
// destroyed before. RPC thread only.
class Connector {
 public:
  using Done = std::function<void(absl::StatusOr<std::unique_ptr<ByteStream>>)>;

  static std::unique_ptr<Connector> Connect(EventLoop& loop, const Address& address, Done done);
  virtual ~Connector() = default;
};

}  // namespace varnic::net

#endif  // CORE_NET_SOCKET_STREAM_H_
