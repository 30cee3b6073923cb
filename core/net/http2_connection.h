#ifndef CORE_NET_HTTP2_CONNECTION_H_
#define CORE_NET_HTTP2_CONNECTION_H_

#include <memory>
#include <string>

#include "absl/status/status.h"
#include "core/net/byte_stream.h"
#include "core/net/event_loop.h"
#include "core/net/http2_session.h"
#include "core/net/lifetime.h"

namespace varnic::net {

// An Http2Session on a ByteStream: moves the bytes, and writes once per turn of the loop what all
// the streams have to say. Takes output from the session only as fast as the peer reads it.
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
                  const Http2Options& options, Visitor& visitor);
  // Ends every stream, whose handlers hear of it; the visitor hears nothing. Not inside a handler's
  // call.
  ~Http2Connection() override;

  Http2Session& session() { return session_; }
  // How the byte stream has failed; OK while it has not, and if the peer closed it.
  const absl::Status& stream_failure() const { return stream_failure_; }

 private:
  void OnBytes(std::string_view bytes) override;
  void OnWritable() override;
  void OnClosed(const absl::Status& status) override;

  std::unique_ptr<Http2Session::Handler> OnNewStream(StreamId stream_id) override;
  void OnGoaway() override;
  void OnOutputPending() override;

  void Flush();
  // False if the peer does not take everything now.
  bool WriteOutput();
  bool Write(std::string_view bytes);
  // Waits a little until the peer has closed: a connection that is closed with bytes on their way
  // to it is reset, and the peer may never see what was sent last.
  void Linger();
  void End(const absl::Status& status);

  EventLoop& loop_;
  Visitor& visitor_;
  std::unique_ptr<ByteStream> stream_;  // Null once the connection has ended.
  Http2Session session_;
  std::string unsent_;  // Taken from the session, and not yet taken by the peer.
  bool flush_follows_ = false;
  absl::Status stream_failure_;
  std::unique_ptr<Timer> linger_timer_;  // Once there is nothing left to say.
  Lifetime lifetime_;
};

}  // namespace varnic::net

#endif  // CORE_NET_HTTP2_CONNECTION_H_
