#ifndef CORE_NET_HTTP2_CONNECTION_H_
#define CORE_NET_HTTP2_CONNECTION_H_

#include <cstdint>
#include <memory>
#include <string>

#include "absl/status/status.h"
#include "core/net/byte_stream.h"
#include "core/net/edge/connection_guard.h"
#include "core/net/edge/connection_limits.h"
#include "core/net/event_loop.h"
#include "core/net/http2_session.h"

namespace varnic::net {

// An Http2Session on a ByteStream: moves the bytes, and writes once per turn of the loop what all
// the streams have to say; when much has come in one turn, a few times while it is processed, so
// that both ends have something to do. Takes output from the session only as fast as the peer reads
// it, and ends a connection on which the peer does not keep to the limits.
//
// Owns the byte stream. RPC thread only.
class Http2Connection : private ByteStream::Visitor, private Http2Session::Visitor {
 public:
  class Visitor {
   public:
    virtual ~Visitor() = default;
    virtual std::unique_ptr<Http2Session::Handler> OnNewStream(StreamId stream_id) = 0;
    virtual void OnGoaway() = 0;
    // The connection has ended, and with it every stream; OK if both ends had finished. The last
    // call; may destroy the connection.
    virtual void OnConnectionClosed(const absl::Status& status) = 0;
  };

  // `visitor` must outlive the connection. Reads from now on.
  Http2Connection(EventLoop& loop, std::unique_ptr<ByteStream> stream, Http2Session::Role role,
                  const Http2Options& options, Visitor& visitor,
                  const ConnectionLimits& limits = ConnectionLimits::None());
  // Ends every stream, whose handlers hear of it; the visitor hears nothing. Not inside a handler's
  // call.
  ~Http2Connection() override;

  Http2Session& session() { return session_; }
  const Http2Session& session() const { return session_; }
  // How the byte stream has failed; OK while it has not, and if the peer closed it.
  const absl::Status& stream_failure() const { return stream_failure_; }

 private:
  void OnBytes(std::string_view bytes) override;
  void OnWritable() override;
  void OnClosed(const absl::Status& status) override;

  std::unique_ptr<Http2Session::Handler> OnNewStream(StreamId stream_id) override;
  void OnGoaway() override;
  void OnPing() override;
  void OnStep() override;
  void OnOutputPending() override;

  void Flush();
  // False if the peer does not take everything now.
  bool WriteOutput();
  bool Write(std::string_view bytes);
  // The peer broke a rule or the protocol. It hears of that as far as it reads.
  bool IsBroken() const;
  // Why the connection ends; OK if both ends want it.
  absl::Status Failure() const;
  // Waits a little until the peer has taken what is still to be written, and has closed: a
  // connection that is closed with bytes on their way to it is reset, and the peer may never see
  // what was sent last. Nobody listens to it any more.
  void Linger(bool all_written);
  void Ignore(std::string_view bytes);
  void End(const absl::Status& status);
  // Looks at the limits, and does what follows.
  void Look();
  // May destroy this.
  void EndFor(EdgeRule rule);
  ConnectionGuard::Activity FindActivity() const;

  EventLoop& loop_;
  Visitor& visitor_;
  std::unique_ptr<ByteStream> stream_;  // Null once the connection has ended.
  Http2Session session_;
  std::string unsent_;  // Taken from the session, and not yet taken by the peer.
  DeferredTask flush_;
  bool flush_follows_ = false;
  absl::Status fault_;  // What the peer sent was no HTTP/2.
  std::uint64_t bytes_received_ = 0;
  std::uint64_t bytes_written_ = 0;
  ConnectionGuard guard_;
  Timer look_timer_;
  absl::Status stream_failure_;
  std::unique_ptr<Timer> linger_timer_;  // Once there is nothing left to hear.
  std::size_t ignored_bytes_ = 0;        // Since then.
  bool said_all_ = false;
};

}  // namespace varnic::net

#endif  // CORE_NET_HTTP2_CONNECTION_H_
