#ifndef CORE_HOST_BROWSER_PIPE_STREAM_H_
#define CORE_HOST_BROWSER_PIPE_STREAM_H_

#include <cstddef>
#include <memory>
#include <string_view>

#include "absl/status/status.h"
#include "core/host/file_descriptor.h"
#include "core/net/byte_stream.h"
#include "core/net/event_loop.h"
#include "core/net/lifetime.h"
#include "core/net/peer.h"
#include "core/net/readable_watch.h"

namespace varnic::host {

// A pair of descriptors to a child process, one to read from and one to write to, as a stream of
// bytes. Both are sockets, so that writing to a child that is gone raises no signal.
class PipeStream : public net::ByteStream {
 public:
  PipeStream(net::EventLoop& loop, FileDescriptor from_child, FileDescriptor to_child);

  void Start(Visitor& visitor) override;
  [[nodiscard]] size_t Write(std::string_view bytes) override;
  void ShutdownWrite() override { to_child_.Close(); }
  const net::Peer& peer() const override { return peer_; }

 private:
  void Read();
  void WaitWritable();
  void FailLater(const absl::Status& status);

  net::EventLoop& loop_;
  FileDescriptor from_child_;
  FileDescriptor to_child_;
  // Readable while there is room in to_child_: a loop's watch knows no other question.
  FileDescriptor room_;
  const net::Peer peer_;
  Visitor* visitor_ = nullptr;
  std::unique_ptr<net::ReadableWatch> read_watch_;
  std::unique_ptr<net::ReadableWatch> room_watch_;
  net::Lifetime lifetime_;
};

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_PIPE_STREAM_H_
