#ifndef CORE_NET_TLS_STREAM_H_
#define CORE_NET_TLS_STREAM_H_

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "absl/status/status.h"
#include "absl/time/time.h"
#include "core/net/byte_stream.h"
#include "core/net/event_loop.h"
#include "core/net/lifetime.h"
#include "core/net/peer.h"
#include "core/net/tls_context.h"

namespace varnic::net {

// TLS on another byte stream, whichever end of it `ssl` was made for. First comes the handshake;
// then this is a ByteStream like any other, whose peer has been verified. Its Start() belongs into
// the handshake's callback: the first bytes may be there already.
//
// Owns the stream below, and keeps no more than one write's worth of bytes that it does not take.
// An end without TLS's own farewell is an end like any other: HTTP/2 marks where each message ends.
// RPC thread only.
class TlsStream : public ByteStream, private ByteStream::Visitor {
 public:
  // OK, or why there is no TLS on this stream, which is then of no more use.
  using Done = std::function<void(const absl::Status&)>;

  TlsStream(EventLoop& loop, std::unique_ptr<ByteStream> below, SslHandle ssl);
  // Says farewell, as far as the stream below takes it.
  ~TlsStream() override;

  // To be called once. `done` runs once, later, unless this is destroyed before; it may destroy
  // this. Fails when `timeout` is over, whatever has arrived until then.
  void Handshake(absl::Duration timeout, Done done);

  void Start(ByteStream::Visitor& visitor) override;
  std::size_t Write(std::string_view bytes) override;
  std::size_t unwritten() const override { return outgoing_.size(); }
  void ShutdownWrite() override;
  const Peer& peer() const override { return peer_; }

 private:
  // How OpenSSL reads and writes here.
  class Bio;
  enum class State { kHandshake, kOpen, kEnded };

  void OnBytes(std::string_view bytes) override;
  void OnWritable() override;
  void OnClosed(const absl::Status& status) override;

  void SayFarewell();
  // Once everything has gone out.
  void EndWriting();
  void AdvanceHandshake();
  void EndHandshake(const absl::Status& status);
  // Why what the handshake arrived at will not do.
  absl::Status CheckHandshake() const;

  // Decrypts what has arrived, and hands it on.
  void Read();
  // Appends to `plain`. The status with which the stream has ended by that, if it has.
  std::optional<absl::Status> Decrypt(std::string& plain);
  void Flush();
  void End(const absl::Status& status);

  EventLoop& loop_;
  State state_ = State::kHandshake;
  Peer peer_;
  ByteStream::Visitor* visitor_ = nullptr;
  Done done_;
  std::string_view arrived_;    // What OpenSSL has not read yet of the bytes that are coming in.
  std::string outgoing_;        // Encrypted, and not yet taken by the stream below.
  bool visitor_waits_ = false;  // For OnWritable().
  bool ends_writing_ = false;
  SslHandle ssl_;
  std::unique_ptr<ByteStream> below_;
  Timer timer_;
  Lifetime lifetime_;
};

}  // namespace varnic::net

#endif  // CORE_NET_TLS_STREAM_H_
