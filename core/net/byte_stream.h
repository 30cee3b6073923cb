#ifndef CORE_NET_BYTE_STREAM_H_
#define CORE_NET_BYTE_STREAM_H_

#include <cstddef>
#include <string_view>

#include "absl/status/status.h"
#include "core/net/peer.h"

namespace varnic::net {

// A connected stream of bytes in both directions: a socket, or what stands in for one. Never
// blocks.
//
// Destroying it closes it, inside any visitor call too; no visitor call comes afterwards. RPC
// thread only.
class ByteStream {
 public:
  class Visitor {
   public:
    virtual ~Visitor() = default;
    // Bytes from the peer, valid for the call.
    virtual void OnBytes(std::string_view bytes) = 0;
    // There is room again, after a Write() that did not take everything, or after which the stream
    // still held something.
    virtual void OnWritable() = 0;
    // The peer has closed (OK), or the connection has failed. The last call.
    virtual void OnClosed(const absl::Status& status) = 0;
  };

  virtual ~ByteStream() = default;

  // Starts to read. `visitor` must outlive the stream.
  virtual void Start(Visitor& visitor) = 0;

  // Sends what fits now, and returns how much that was. After less than all of it, OnWritable()
  // tells when to go on. Failures are reported by OnClosed().
  [[nodiscard]] virtual std::size_t Write(std::string_view bytes) = 0;

  // What Write() has taken and the stream still holds, as the system does not take it. Counted as
  // it will go out, which may be a little more than was written.
  virtual std::size_t unwritten() const { return 0; }

  // Sends no more: the peer sees the end behind what was written. Reading goes on.
  virtual void ShutdownWrite() = 0;

  // Who is at the other end.
  virtual const Peer& peer() const = 0;
};

}  // namespace varnic::net

#endif  // CORE_NET_BYTE_STREAM_H_
