#ifndef CORE_NET_SOCKET_STREAM_H_
#define CORE_NET_SOCKET_STREAM_H_

#include <cstdint>
#include <functional>
#include <memory>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "core/net/address.h"
#include "core/net/byte_stream.h"
#include "core/net/event_loop.h"
#include "core/net/unix_admission.h"

namespace varnic::net {

struct ListenerOptions {
  // For a Unix-domain socket.
  UnixAdmission unix_admission;
  // For TCP: whatever goes over these connections is encrypted, so they may come from anywhere.
  bool beyond_loopback = false;
};

// Accepts connections on one address: a Unix-domain socket, or TCP. RPC thread only.
class Listener {
 public:
  using OnAccept = std::function<void(std::unique_ptr<ByteStream>)>;

  // Listens at once. A socket file that a dead process has left behind is replaced, one on which
  // somebody listens is not. Who may not connect to a Unix-domain socket is let go at once, counted
  // and logged. TCP is refused anywhere but on a loopback address, unless the options say
  // otherwise.
  static absl::StatusOr<std::unique_ptr<Listener>> Listen(EventLoop& loop, const Address& address,
                                                          OnAccept on_accept,
                                                          const ListenerOptions& options = {});
  // Accepts connections on a socket that this process was started with; see InheritedAddress(). The
  // listener owns `fd` if this succeeds. Everything else is as above, but that the socket's file is
  // the other's who has bound it: it keeps its mode, and stays when the listener goes.
  static absl::StatusOr<std::unique_ptr<Listener>> Adopt(EventLoop& loop, int fd,
                                                         OnAccept on_accept,
                                                         const ListenerOptions& options = {});
  virtual ~Listener() = default;

  // Where it listens, with the port that the system has picked.
  virtual const Address& address() const = 0;
  // Counts those who came and were not let in.
  virtual std::uint64_t refused() const = 0;
  // Connections that are open, and still have to show who they are.
  virtual std::size_t handshakes() const { return 0; }
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
