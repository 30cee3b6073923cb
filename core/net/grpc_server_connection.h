#ifndef CORE_NET_GRPC_SERVER_CONNECTION_H_
#define CORE_NET_GRPC_SERVER_CONNECTION_H_

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "absl/status/status.h"
#include "absl/time/time.h"
#include "absl/types/span.h"
#include "core/net/block_pool.h"
#include "core/net/byte_stream.h"
#include "core/net/edge/connection_limits.h"
#include "core/net/edge/edge_counters.h"
#include "core/net/edge/unfinished_messages.h"
#include "core/net/event_loop.h"
#include "core/net/grpc_request.h"
#include "core/net/http2_connection.h"
#include "core/net/http2_session.h"
#include "core/net/loop_clock.h"
#include "core/net/message_framing.h"
#include "core/net/metadata.h"
#include "core/net/peer.h"

namespace varnic::net {

class GrpcServerConnection;

// Is told how calls end, for counting. Outlives the calls that it observes; may be that of many.
class CallObserver {
 public:
  virtual ~CallObserver() = default;
  // Once for each call: with the status that its client has got, or CANCELLED if the client has
  // left, or RESOURCE_EXHAUSTED if it was reset because the client does not read, and how long
  // after the beginning of its request that was. Not to touch the call.
  virtual void OnCallEnded(absl::StatusCode code, absl::Duration duration) = 0;
};

struct GrpcServerOptions {
  Http2Options http2;
  // The largest message that a client may send.
  std::size_t max_message_bytes = 4 << 20;
  // Bytes of messages that have not ended, of all calls together; at least one message of the
  // largest size. The call whose data goes past it ends with RESOURCE_EXHAUSTED.
  std::size_t max_unfinished_bytes = 16 << 20;
  // Without those that make no sense for a peer on a Unix-domain socket.
  ConnectionLimits limits;
  // Of the calls for which nobody names another one; may be null.
  CallObserver* observer = nullptr;
};

// The server's side of one gRPC call, unary or streaming: its messages, its deadline and its
// status. Knows nothing of services.
//
// Lives for as long as its HTTP/2 stream, which owns it. Its visitor may use it from OnCall() until
// the call ends, which happens in exactly one of two ways: the visitor calls Finish(), or it is
// told OnCancelled(). RPC thread only.
class GrpcServerCall final : public Http2Session::Handler, public Pooled {
 public:
  class Visitor {
   public:
    virtual ~Visitor() = default;
    // One whole message, valid for the call.
    virtual void OnMessage(std::string_view message) = 0;
    // The client sends no more messages.
    virtual void OnHalfClose() = 0;
    // There is room again, after HasRoom() was false.
    virtual void OnRoom() {}
    // Nobody waits for an answer any more: the client has reset the call, its connection is lost,
    // its deadline has passed, or what it sent could not be read. The call is not to be used again.
    virtual void OnCancelled() = 0;
    // The same, because the client does not read: it hears RESOURCE_EXHAUSTED.
    virtual void OnStalled() { OnCancelled(); }
  };

  GrpcServerCall(GrpcServerConnection& connection, StreamId stream_id);
  GrpcServerCall(const GrpcServerCall&) = delete;
  GrpcServerCall& operator=(const GrpcServerCall&) = delete;
  ~GrpcServerCall() override;

  // Whoever gets a new call either accepts it, with a visitor that lives until the call ends, or
  // finishes it at once.
  void Accept(Visitor& visitor) { visitor_ = &visitor; }

  // From now on `observer`, instead of an earlier one, is to hear of the end.
  void Observe(CallObserver& observer) { observer_ = &observer; }

  // What the client says besides its request; inside OnCall() alone. May be kept for longer than
  // the call.
  std::shared_ptr<const Metadata> RequestMetadata(const GrpcRequestHead& head) const;

  // Who calls. May be kept for longer than the call.
  const std::shared_ptr<const Peer>& peer() const;
  // absl::InfiniteFuture() if the client set no timeout.
  absl::Time deadline() const { return deadline_; }

  // Answers with the headers of the response, before there is a message to send.
  void SendHeaders(const Metadata& metadata = {});
  // Sends one message, framed by FrameMessage(); or, with `shared`, the framing and the beginning
  // of one, whose rest is `shared`.
  void Send(std::string framed, std::shared_ptr<const std::string> shared = nullptr);
  // The same for a small message, which is copied.
  void SendCopy(std::string_view framed);
  // Whether what was sent so far is on its way, but for a little. Whoever has much to send keeps
  // the rest for later.
  bool HasRoom() const;
  // Ends the call behind what was sent, with `metadata` in its trailers. A text of many kilobytes
  // reaches the client cut.
  void Finish(const absl::Status& status, const Metadata& metadata = {});
  // Ends the call at once, without what waits to be sent. Clients make a status of `error`.
  void Reset(Http2Error error);

 private:
  void OnHeaders(const HeaderList& headers) override;
  bool OnHeadersTooLarge(std::size_t limit) override;
  void OnData(std::string_view chunk) override;
  void OnRemoteEnd() override;
  void OnSendQueueEmpty() override;
  void OnStalled() override { stalled_ = true; }
  void OnClosed(Http2Error error) override;

  void Begin(const GrpcRequestHead& head);
  void Reject(const HttpRejection& rejection);
  absl::Status OnMessage(std::string_view message, bool compressed);
  // Ends a call that the visitor has not finished.
  void Cancel(const absl::Status& status);
  void ReportEnd(absl::StatusCode code);
  // The end of the call, as far as it listens. The visitor that is to hear of it; null if it has
  // ended the call itself.
  Visitor* TakeVisitor();

  Http2Session& session() const;
  // Of a response, without metadata.
  absl::Span<const HeaderField> ResponseFields() const;

  GrpcServerConnection& connection_;
  const StreamId stream_id_;
  Visitor* visitor_ = nullptr;  // Null before Accept(), and once the call has ended.
  CallObserver* observer_;      // Null once it has heard of the end.
  const LoopClock::time_point began_;
  absl::Time deadline_ = absl::InfiniteFuture();
  MessageReader reader_;
  UnfinishedMessages::Share unfinished_;  // What the reader has.
  bool request_seen_ = false;
  bool names_encoding_ = false;  // The client's grpc-encoding is one that compresses.
  bool headers_sent_ = false;
  bool finished_ = false;
  bool stalled_ = false;  // The client does not read, and the stream is being reset for that.
  std::unique_ptr<Timer> timer_;  // Only with a deadline.
};

// The server's end of one connection, from which calls come. Owns the byte stream. RPC thread only.
class GrpcServerConnection : private Http2Connection::Visitor {
 public:
  class Visitor {
   public:
    virtual ~Visitor() = default;
    // A new call: Accept() it or Finish() it. `head` is valid for the call.
    virtual void OnCall(GrpcServerCall& call, const GrpcRequestHead& head) = 0;
    // The connection is lost or done, and its calls are over. The last call; may destroy the
    // connection.
    virtual void OnConnectionClosed(GrpcServerConnection& connection,
                                    const absl::Status& status) = 0;
  };

  // `visitor` must outlive the connection.
  GrpcServerConnection(EventLoop& loop, std::unique_ptr<ByteStream> stream,
                       const GrpcServerOptions& options, Visitor& visitor);
  // Cancels the calls that are open.
  ~GrpcServerConnection() override = default;

  // Tells the client to make no more calls; the connection ends when those that are open have
  // ended.
  void SendGoaway() { http2_.session().SendGoaway(); }

  const Peer& peer() const { return *peer_; }
  // Of messages that have not ended.
  std::size_t unfinished_bytes() const { return unfinished_.bytes(); }
  // The rule by which this end has ended the connection, if it has.
  const std::optional<EdgeRule>& ended_by() const { return http2_.session().broken_rule(); }

 private:
  friend class GrpcServerCall;

  std::unique_ptr<Http2Session::Handler> OnNewStream(StreamId stream_id) override;
  void OnGoaway() override {}
  void OnConnectionClosed(const absl::Status& status) override;

  EventLoop& loop_;
  const GrpcServerOptions options_;
  Visitor& visitor_;
  const std::shared_ptr<const Peer> peer_;
  UnfinishedMessages unfinished_;
  GrpcRequestMemo requests_;
  MetadataMemo metadata_;
  Http2Connection http2_;  // Last: calls into the rest.
};

}  // namespace varnic::net

#endif  // CORE_NET_GRPC_SERVER_CONNECTION_H_
