#ifndef CORE_NET_GRPC_CLIENT_CONNECTION_H_
#define CORE_NET_GRPC_CLIENT_CONNECTION_H_

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <string_view>

#include "absl/status/status.h"
#include "absl/time/time.h"
#include "core/net/block_pool.h"
#include "core/net/byte_stream.h"
#include "core/net/event_loop.h"
#include "core/net/http2_connection.h"
#include "core/net/http2_session.h"
#include "core/net/message_framing.h"

namespace varnic::net {

struct GrpcClientOptions {
  // An answer's headers may be larger than a request's.
  GrpcClientOptions() { http2.max_header_list_bytes = 64 << 10; }

  Http2Options http2;
  // The largest message that a server may send.
  std::size_t max_message_bytes = 4 << 20;
  // While a call is open and the server says nothing for so long, it is sent a ping, and then has
  // the timeout for any answer. Ten seconds at least; infinite: never. Most servers want no more
  // than one ping in five minutes.
  absl::Duration keepalive_time = absl::InfiniteDuration();
  absl::Duration keepalive_timeout = absl::Seconds(20);
};

// The client's side of one gRPC call, unary or streaming.
//
// Lives for as long as its HTTP/2 stream, which owns it. Whoever started it may use it until the
// call ends, which happens in exactly one of two ways: its visitor is told OnDone() (or takes an
// OnUnprocessed()), or Cancel() is called. RPC thread only.
class GrpcClientCall final : public Http2Session::Handler, public Pooled {
 public:
  class Visitor {
   public:
    virtual ~Visitor() = default;
    // The server has answered with its headers, and the call goes on. At most once, before any
    // message.
    virtual void OnHeaders() {}
    // See Http2Session::Handler::OnSendQueueEmpty().
    virtual void OnSendQueueEmpty() {}
    // One whole message, valid for the call.
    virtual void OnMessage(std::string_view message) = 0;
    // Instead of OnDone: the server has not processed the call, which may be made again, on a new
    // connection if this one comes to its end. False if the visitor does not do that; OnDone
    // follows.
    virtual bool OnUnprocessed() { return false; }
    // The server's status, or why there is none. The call is not to be used again.
    virtual void OnDone(const absl::Status& status) = 0;
  };

  GrpcClientCall(std::size_t max_message_bytes, Visitor& visitor);
  GrpcClientCall(const GrpcClientCall&) = delete;
  GrpcClientCall& operator=(const GrpcClientCall&) = delete;

  // Sends one message, framed by FrameMessage(); the last one if `half_close`.
  void Send(std::string framed, bool half_close);
  // What was sent and waits for the connection, or for the server to read.
  std::size_t queued_bytes() const { return session_->QueuedBytes(stream_id_); }
  // Ends the call: the server is told, the visitor is not.
  void Cancel();

 private:
  friend class GrpcClientConnection;

  void OnHeaders(const HeaderList& headers) override;
  void OnData(std::string_view chunk) override;
  void OnSendQueueEmpty() override;
  void OnRemoteEnd() override;
  void OnClosed(Http2Error error) override;

  // Which header blocks say no more than that all is well; most do. Revisions of lists.
  struct PlainAnswers {
    static constexpr std::uint64_t kNone = std::numeric_limits<std::uint64_t>::max();

    std::uint64_t headers = kNone;
    std::uint64_t trailers = kNone;
  };

  void OnPlainHeaders();
  void OnPlainTrailers();
  void OnTrailers(const HeaderList& headers);
  // Ends the call from this side, because of what the server sent.
  void Fail(const absl::Status& status);
  void Done(const absl::Status& status);

  Http2Session* session_ = nullptr;  // Set once the stream is open, with what follows.
  const Http2Connection* connection_ = nullptr;
  PlainAnswers* plain_answers_ = nullptr;
  StreamId stream_id_ = -1;
  Visitor* visitor_;  // Null once the call has ended.
  MessageReader reader_;
  absl::Status status_;  // From the server's trailers.
  bool has_status_ = false;
  bool has_headers_ = false;
};

// The client's end of one connection, on which calls are made. Owns the byte stream. RPC thread
// only.
class GrpcClientConnection : private Http2Connection::Visitor {
 public:
  class Visitor {
   public:
    virtual ~Visitor() = default;
    // The connection takes no new calls from now on: the server is about to close it.
    virtual void OnGoaway(GrpcClientConnection& connection) = 0;
    // The connection is lost, and its calls are done. The last call; may destroy the connection.
    virtual void OnConnectionClosed(GrpcClientConnection& connection,
                                    const absl::Status& status) = 0;
  };

  // `visitor` must outlive the connection.
  GrpcClientConnection(EventLoop& loop, std::unique_ptr<ByteStream> stream, std::string authority,
                       const GrpcClientOptions& options, Visitor& visitor);
  // The calls that are open are done, with status UNAVAILABLE.
  ~GrpcClientConnection() override = default;

  // Starts a call of `path`; `timeout` and `metadata` are what the server is told. `visitor` must
  // live until the call ends. Null if this connection takes no more calls.
  GrpcClientCall* StartCall(std::string_view path, absl::Duration timeout,
                            GrpcClientCall::Visitor& visitor,
                            absl::Span<const HeaderField> metadata = {});

 private:
  std::unique_ptr<Http2Session::Handler> OnNewStream(StreamId /*stream_id*/) override {
    return nullptr;  // A server opens no streams here: push is off.
  }
  void OnGoaway() override { visitor_.OnGoaway(*this); }
  void OnConnectionClosed(const absl::Status& status) override {
    visitor_.OnConnectionClosed(*this, status);
  }

  const std::string authority_;
  const std::string_view scheme_;
  const GrpcClientOptions options_;
  Visitor& visitor_;
  GrpcClientCall::PlainAnswers plain_answers_;
  Http2Connection http2_;  // Last: calls into the rest.
};

}  // namespace varnic::net

#endif  // CORE_NET_GRPC_CLIENT_CONNECTION_H_
