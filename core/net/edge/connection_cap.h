#ifndef CORE_NET_EDGE_CONNECTION_CAP_H_
#define CORE_NET_EDGE_CONNECTION_CAP_H_

#include <cstddef>
#include <string>

namespace varnic::net {

// How many connections a server may hold, those in a TLS handshake too: `max_connections`, or as
// many as leave the process a quarter of its file descriptors, 256 at most, for files and programs.
std::size_t ConnectionCap(std::size_t max_connections);
std::size_t ConnectionCap(std::size_t max_connections, std::size_t descriptors);

// All that a peer is told whose connection is one too many: SETTINGS, and a GOAWAY with the reason.
// HTTP/2 of its own, because it has to cost no session.
const std::string& RefusalOfConnection();

}  // namespace varnic::net

#endif  // CORE_NET_EDGE_CONNECTION_CAP_H_
