#ifndef CORE_NET_HTTP2_SESSION_H_
#define CORE_NET_HTTP2_SESSION_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "absl/container/flat_hash_map.h"
#include "absl/status/status.h"
#include "absl/types/span.h"
#include "core/net/edge/edge_counters.h"
#include "core/net/edge/flood_limits.h"
#include "core/net/edge/stall_watch.h"
#include "core/net/header_list.h"
#include "core/net/loop_clock.h"
#include "core/net/received_headers.h"

struct nghttp2_session;

namespace varnic::net {

class ClientFrames;
enum class ProtocolFault;

using StreamId = int32_t;

// HTTP/2 error codes (RFC 9113, section 7): those that this code sends; a peer may send any.
enum class Http2Error : uint32_t {
  kNoError = 0x0,
  kProtocolError = 0x1,
  kInternalError = 0x2,
  kStreamClosed = 0x5,
  kFrameSizeError = 0x6,
  kRefusedStream = 0x7,
  kCancel = 0x8,
  kEnhanceYourCalm = 0xb,
  // Stands on no wire: the stream went with its connection.
  kConnectionLost = 0xffffffff,
};

struct Http2Options {
  uint32_t max_concurrent_streams = 1024;
  // How much the peer may send on one stream, and on the connection, before it is read.
  uint32_t stream_window_bytes = 1 << 20;
  uint32_t connection_window_bytes = 4 << 20;
  // The largest header block that the peer may send, counted as RFC 9113, section 6.5.2, does, with
  // 32 bytes for each field besides its own. A larger one ends its stream: see
  // Handler::OnHeadersTooLarge(). However small on the wire, compression may make it huge.
  uint32_t max_header_list_bytes = 16 << 10;
  // A server's: what ends the connection of a client that floods it.
  FloodLimits floods;
  // Where a server counts what its clients do; outlives the session. Null: nowhere.
  EdgeCounters* edge_counters = nullptr;
};

// One end of an HTTP/2 connection: turns bytes from the peer into calls of a Visitor and of
// Handlers, and what is submitted into bytes. Owns the handlers of its streams, no socket and no
// timer; a test drives it with strings.
//
// RPC thread only. Opening, sending and resetting are fine inside any visitor or handler call, and
// call nobody back but for OnOutputPending, and for what Reset() says; processing bytes, taking
// output and destroying the session there are not.
class Http2Session {
 public:
  enum class Role { kServer, kClient };

  // What happens on one stream: OnHeaders once or more, OnData any number of times, at most one
  // OnRemoteEnd, and exactly one OnClosed.
  class Handler {
   public:
    virtual ~Handler() = default;
    // A header block: the request's or the response's, an informational one, or trailers.
    virtual void OnHeaders(const HeaderList& headers) = 0;
    // A server's, instead of OnHeaders: the block has more than the `limit` of bytes, and is gone.
    // True if the handler answers that; otherwise the stream is reset with kEnhanceYourCalm, as it
    // always is if the block is very much larger.
    virtual bool OnHeadersTooLarge(std::size_t /*limit*/) { return false; }
    virtual void OnData(std::string_view chunk) = 0;  // Valid for the call.
    // The peer will send no more on this stream.
    virtual void OnRemoteEnd() = 0;
    // All that was sent on the stream is on its way: time to send more of what waits elsewhere.
    // Comes while output is taken; sending is fine, as everywhere.
    virtual void OnSendQueueEmpty() {}
    // The peer does not read what was sent on the stream, which is therefore reset; OnClosed
    // follows.
    virtual void OnStalled() {}
    // The stream is gone; kNoError if both ends had finished with it. The last call: the session
    // then destroys the handler.
    virtual void OnClosed(Http2Error error) = 0;
  };

  class Visitor {
   public:
    virtual ~Visitor() = default;
    // The peer has opened a stream (a server only). Null refuses it.
    virtual std::unique_ptr<Handler> OnNewStream(StreamId stream_id) = 0;
    // The peer takes no new streams (a client only).
    virtual void OnGoaway() = 0;
    // The peer has sent a ping, which is answered.
    virtual void OnPing() {}
    // Much has come at once, and a part of it is processed: time to take what there is to say to
    // that, which is fine here.
    virtual void OnStep() {}
    // There is output to take. Comes once, until the output was taken.
    virtual void OnOutputPending() = 0;
  };

  // What the connection has come to, for whoever watches over it.
  struct Activity {
    bool greeted = false;              // The peer's first SETTINGS have come.
    std::uint64_t streams_opened = 0;  // By either side, over the connection's life.
    std::uint64_t bytes_sent = 0;      // That stood in the queues of streams.
    std::size_t bytes_queued = 0;      // That stand there now.
    // Frames that carried something for a stream: HEADERS, DATA and WINDOW_UPDATE.
    std::uint64_t stream_frames_sent = 0;
  };

  // `visitor` must outlive the session.
  Http2Session(Role role, const Http2Options& options, Visitor& visitor);
  Http2Session(const Http2Session&) = delete;
  Http2Session& operator=(const Http2Session&) = delete;
  // Handlers of open streams are destroyed without an OnClosed; see CloseAllStreams().
  ~Http2Session();

  // Feeds bytes from the peer. An error: they are no HTTP/2. Write what TakeOutput() gives, and
  // close. Once broken_rule() is there, nothing is done with them.
  [[nodiscard]] absl::Status ProcessBytes(std::string_view bytes);

  // Appends frames to `output` until it holds `limit` bytes or there are no more.
  void TakeOutput(std::size_t limit, std::string& output);

  // A server's: the peer takes no more output for now. Ends the connection if too much waits.
  void OnOutputStuck();
  // Ends the connection for a rule that the peer has broken, with a GOAWAY that names it, and
  // counts that. Nothing is heard of the peer from now on; the session is finished when the GOAWAY
  // is taken. An idle client has broken none: that is no more than a SendGoaway().
  void EndFor(EdgeRule rule);
  // The rule for which the connection ends.
  const std::optional<EdgeRule>& broken_rule() const { return broken_rule_; }

  // The connection has nothing left to say or to hear: it was ended by a GOAWAY of either side.
  bool IsFinished() const;

  // Why the connection ends, if not because both ends want it: one of them has broken the protocol.
  const absl::Status& failure() const { return failure_; }

  // A client's: opens a stream with the request's header block, which waits for its turn here while
  // the peer takes no more streams. Negative if the session has no more
  // stream ids, or takes no new streams; the handler is then destroyed at once.
  [[nodiscard]] StreamId OpenStream(absl::Span<const HeaderField> headers,
                                    std::unique_ptr<Handler> handler);

  // Where the text of header fields stays: with the caller, so that it has to be copied, or where
  // it is for the program's life.
  enum class HeaderText { kCallers, kConstant };

  // A server's: sends the response's header block, and no more if `end_stream`.
  void SendHeaders(StreamId stream_id, absl::Span<const HeaderField> headers, bool end_stream,
                   HeaderText text = HeaderText::kCallers);

  // The rest belongs to both. What is sent on a stream that is already gone, as it may be after a
  // reset by the peer, is dropped.
  void SendData(StreamId stream_id, std::string bytes, bool end_stream);
  // The same for what is small, and costs less to copy than to own.
  void SendCopy(StreamId stream_id, std::string_view bytes);
  // The same, with bytes behind it that go out on many streams, which all keep the same ones.
  void SendSharedData(StreamId stream_id, std::string head,
                      std::shared_ptr<const std::string> bytes);
  // What was sent on a stream and waits for the connection, or for the peer's window.
  std::size_t QueuedBytes(StreamId stream_id) const;
  // Ends the stream behind what was sent, with a trailing header block.
  void SendTrailers(StreamId stream_id, absl::Span<const HeaderField> headers,
                    HeaderText text = HeaderText::kCallers);
  // OnClosed follows; inside, if the request waits for its turn: nothing is left of it then.
  void Reset(StreamId stream_id, Http2Error error);
  // Resets a stream of which the peer reads nothing, with kEnhanceYourCalm.
  void ResetStalled(StreamId stream_id);
  // Tells the peer that the connection ends, and why: new streams are not processed, open ones go
  // on. The session is finished once the last of them is closed.
  void SendGoaway(Http2Error error = Http2Error::kNoError, std::string_view reason = {});
  void SendPing();

  const Activity& activity() const { return activity_; }
  // A server's: when the bytes that were processed last had come.
  LoopClock::time_point input_time() const { return input_time_; }
  // What waits in the queues of streams, and for which windows. Takes time for each open stream.
  WaitingOutput FindWaitingOutput() const;

  // The connection is lost: calls OnClosed of every stream, and neither hears nor says anything
  // from now on.
  void CloseAllStreams();

 private:
  struct Stream;
  struct Callbacks;
  struct SessionDeleter {
    void operator()(nghttp2_session* session) const;
  };

  void Greet();
  Stream* Find(StreamId stream_id) const;
  Stream& Add(StreamId stream_id, std::unique_ptr<Stream> stream);
  absl::Status Receive(std::string_view bytes);
  absl::Status ReceiveStep(std::string_view bytes);
  absl::Status EndForFault(ProtocolFault fault);
  void OnHeaderBlock(StreamId stream_id, Stream& stream, ReceivedHeaders& block);
  void OnLargeHeaderBlock(StreamId stream_id, Stream& stream, ReceivedHeaders& block);
  bool IsAnswered(StreamId stream_id) const;
  bool HasSlot() const;
  void SubmitRequest(StreamId stream_id, Stream& stream, absl::Span<const HeaderField> headers);
  // The requests for which the peer has room by now.
  void SubmitWaiting();
  void EndIfBroken(std::optional<EdgeRule> rule);
  void OnGoaway(StreamId last_processed);
  // Has nghttp2 ask for what waits in the stream's queue.
  void SendWaiting(StreamId stream_id, Stream& stream);
  void Close(StreamId stream_id, Http2Error error);
  void CountSent(Stream& stream, std::size_t bytes);
  void AnnounceOutput();

  const Role role_;
  const Http2Options options_;
  Visitor& visitor_;
  bool output_announced_ = false;
  bool closed_ = false;
  absl::Status failure_;
  std::optional<EdgeRule> broken_rule_;
  bool told_rule_ = false;                // The GOAWAY that names the rule is taken.
  std::unique_ptr<ClientFrames> guards_;  // A server's.
  StreamId last_opened_ = 0;              // By the peer.
  Activity activity_;
  // Header blocks never interleave (RFC 9113, section 4.3), so one of each kind will do.
  ReceivedHeaders incoming_heads_;
  ReceivedHeaders incoming_trailers_;
  LoopClock::time_point input_time_;
  absl::flat_hash_map<StreamId, std::unique_ptr<Stream>> streams_;
  // A client's: the headers of those that wait for their turn. nghttp2 would keep what it was given
  // until then, even if it is reset.
  std::map<StreamId, HeaderList> waiting_;
  StreamId next_id_ = 1;  // A client's.
  // One of `streams_`: what was found last is mostly what is looked for next.
  mutable StreamId found_id_ = 0;
  mutable Stream* found_ = nullptr;
  std::unique_ptr<nghttp2_session, SessionDeleter> session_;  // Last: calls into the rest.
};

}  // namespace varnic::net

#endif  // CORE_NET_HTTP2_SESSION_H_
