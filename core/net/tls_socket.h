#ifndef CORE_NET_TLS_SOCKET_H_
#define CORE_NET_TLS_SOCKET_H_

#include <functional>
#include <memory>

#include "absl/status/statusor.h"
#include "core/net/socket_stream.h"
#include "core/net/tls_context.h"

namespace varnic::net {

// Whether there is room for one more connection, in its handshake or after.
using HasRoom = std::function<bool()>;

// Accepts TLS connections on a TCP address, loopback or not. `on_accept` gets those whose
// handshakes have succeeded; the others are closed, counted as refused, and logged. Where there is
// no room, a handshake begins at the cost of the oldest one, and is the only one at the least. RPC
// thread only.
absl::StatusOr<std::unique_ptr<Listener>> ListenTls(EventLoop& loop, const Address& address,
                                                    const TlsServerOptions& options,
                                                    Listener::OnAccept on_accept,
                                                    HasRoom has_room = nullptr);

// The same on a TCP socket that this process was started with; see Listener::Adopt().
absl::StatusOr<std::unique_ptr<Listener>> AdoptTls(EventLoop& loop, int fd,
                                                   const TlsServerOptions& options,
                                                   Listener::OnAccept on_accept,
                                                   HasRoom has_room = nullptr);

// Connects to a TCP address and does the TLS handshake there; the rest is as with
// Connector::Connect(). `context` must outlive the connector.
std::unique_ptr<Connector> ConnectTls(EventLoop& loop, const Address& address,
                                      const TlsClientContext& context, Connector::Done done);

}  // namespace varnic::net

#endif  // CORE_NET_TLS_SOCKET_H_
