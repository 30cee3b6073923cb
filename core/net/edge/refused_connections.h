#ifndef CORE_NET_EDGE_REFUSED_CONNECTIONS_H_
#define CORE_NET_EDGE_REFUSED_CONNECTIONS_H_

#include <cstddef>
#include <memory>
#include <vector>

#include "core/net/byte_stream.h"
#include "core/net/event_loop.h"

namespace varnic::net {

// Connections that are one too many. Each is told so (RefusalOfConnection()) and then lingers for a
// second, or until the peer has closed it: one that is closed with bytes on their way to it is
// reset, and the peer may never see what it was told. What it sends meanwhile is dropped.
//
// At most 64 linger at a time; a flood of others is told and closed at once. RPC thread only.
class RefusedConnections {
 public:
  // The loop outlives this.
  explicit RefusedConnections(EventLoop& loop);
  RefusedConnections(const RefusedConnections&) = delete;
  RefusedConnections& operator=(const RefusedConnections&) = delete;
  ~RefusedConnections();

  void Add(std::unique_ptr<ByteStream> stream);
  // Closes those that linger.
  void Clear();

  std::size_t lingering() const { return lingering_.size(); }

 private:
  class Connection;

  void Remove(const Connection& connection);

  EventLoop& loop_;
  std::vector<std::unique_ptr<Connection>> lingering_;
};

}  // namespace varnic::net

#endif  // CORE_NET_EDGE_REFUSED_CONNECTIONS_H_
