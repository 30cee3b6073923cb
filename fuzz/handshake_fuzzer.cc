// How a connection begins: bytes of any kind, in any pieces and at any time, for a server's end
// that has heard nothing yet and waits for HTTP/2, or for TLS. When the time for that is over, the
// peer has said what it has to, or it is gone, and it was told no more than a little.

#include <openssl/ssl.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "absl/time/time.h"
#include "core/common/rpc/fatal.h"
#include "core/net/event_loop.h"
#include "core/net/grpc_server_connection.h"
#include "core/net/testing/fake_byte_stream.h"
#include "core/net/testing/fake_clock.h"
#include "core/net/testing/raw_http2_peer.h"
#include "core/net/testing/test_certificates.h"
#include "core/net/tls_context.h"
#include "core/net/tls_stream.h"
#include "fuzz/fuzz_input.h"
#include "fuzz/quiet_logs.h"

namespace varnic::fuzz {
namespace {

// What both handshakes may take, and a farewell.
constexpr absl::Duration kTimeout = absl::Seconds(10);
constexpr absl::Duration kFarewell = absl::Seconds(2);

constexpr std::size_t kFrameHeader = 9;
// The greeting and a GOAWAY; and what a frame of the client may make the server say.
constexpr std::size_t kOutputAnyway = 4 << 10;
constexpr std::size_t kOutputPerFrame = 512;
// A server's flight, with one certificate, and an alert.
constexpr std::size_t kTlsOutput = 8 << 10;

// A peer that follows the input, while time passes as the input says.
class Beginner {
 public:
  explicit Beginner(FuzzInput& input) : input_(input) {
    net::Peer identity;
    if (input_.TakeBool()) identity.kind = net::Peer::Kind::kUnix;
    peer_.set_identity(identity);
  }

  net::EventLoop& loop() { return loop_; }
  net::testing::FakePeer& peer() { return peer_; }
  // All that was sent while it was still heard.
  const std::string& sent() const { return sent_; }

  // Until the time for the handshake is over.
  void Run() {
    absl::Duration left = kTimeout;
    while (!input_.empty() && left > absl::ZeroDuration()) {
      const absl::Duration step = std::min(left, Step());
      Wait(step);
      left -= step;
    }
    Wait(left);
    Wait(kFarewell);
  }

 private:
  // How much time passes afterwards.
  absl::Duration Step() {
    switch (input_.TakeBelow(5)) {
      case 0:
        Send(input_.TakePiece());
        return absl::ZeroDuration();
      case 1:
        Send(input_.TakePiece());
        return absl::Seconds(1);
      case 2:
        return absl::Seconds(4);
      case 3:
        peer_.LimitRoom(input_.TakeByte());
        return absl::ZeroDuration();
      default:
        peer_.MakeRoom();
        return absl::ZeroDuration();
    }
  }

  void Send(std::string_view bytes) {
    if (peer_.open()) sent_ += bytes;
    peer_.Send(bytes);
  }

  void Wait(absl::Duration duration) {
    clock_.Advance(duration);
    while (loop_.RunPending() > 0) {
    }
  }

  FuzzInput& input_;
  net::testing::FakeClock clock_;
  net::testing::FakePeer peer_;
  net::EventLoop loop_;
  std::string sent_;
};

// Whether it is the client's preface and a whole SETTINGS frame.
bool BeginsHttp2(std::string_view bytes) {
  constexpr std::size_t kPreface = net::testing::kClientPreface.size();
  if (bytes.size() < kPreface + kFrameHeader) return false;
  if (bytes.substr(0, kPreface) != net::testing::kClientPreface) return false;
  bytes.remove_prefix(kPreface);
  const auto byte = [bytes](std::size_t i) { return static_cast<uint8_t>(bytes[i]); };
  const std::size_t size = byte(0) << 16 | byte(1) << 8 | byte(2);
  const bool is_settings = byte(3) == 4 && (byte(4) & 1) == 0;
  return is_settings && bytes.size() >= kFrameHeader + size;
}

// A server's end that waits for HTTP/2, and serves nothing.
class PlainServer final : private net::GrpcServerConnection::Visitor {
 public:
  explicit PlainServer(Beginner& beginner) {
    net::GrpcServerOptions options;
    options.limits.handshake_timeout = kTimeout;
    net::GrpcServerConnection::Visitor& visitor = *this;
    connection_ = std::make_unique<net::GrpcServerConnection>(
        beginner.loop(), beginner.peer().MakeStream(), options, visitor);
  }
  ~PlainServer() override = default;
  PlainServer(const PlainServer&) = delete;
  PlainServer& operator=(const PlainServer&) = delete;

 private:
  void OnCall(net::GrpcServerCall& call, const net::GrpcRequestHead& /*head*/) override {
    call.Finish(absl::UnimplementedError("nothing is served"));
  }
  void OnConnectionClosed(net::GrpcServerConnection& /*connection*/,
                          const absl::Status& /*status*/) override {
    connection_ = nullptr;
  }

  std::unique_ptr<net::GrpcServerConnection> connection_;  // Null once it has ended.
};

void BeginPlain(FuzzInput& input) {
  Beginner beginner(input);
  const PlainServer server(beginner);
  beginner.Run();
  VARNIC_CHECK(!beginner.peer().open() || BeginsHttp2(beginner.sent()));
  const std::size_t frames = beginner.sent().size() / kFrameHeader + 1;
  VARNIC_CHECK(beginner.peer().Take().size() <= kOutputAnyway + frames * kOutputPerFrame);
}

// Made once for all inputs.
ssl_ctx_st& ServerContext() {
  static ssl_ctx_st* const context = [] {
    net::testing::TestCa ca;
    net::testing::CertificateSpec spec;
    spec.alternative_names = "DNS:localhost";
    const net::testing::IssuedCertificate issued = ca.Issue(spec);
    net::TlsPem pem;
    pem.certificate.text = issued.certificate;
    pem.key.text = issued.key;
    absl::StatusOr<net::SslContextHandle> made = net::MakeServerSslContext(pem);
    VARNIC_CHECK(made.ok());
    return made->release();
  }();
  return *context;
}

// No input is long and clever enough for a whole handshake.
void BeginTls(FuzzInput& input) {
  Beginner beginner(input);
  int failures = 0;
  auto stream = std::make_unique<net::TlsStream>(beginner.loop(), beginner.peer().MakeStream(),
                                                 net::SslHandle(SSL_new(&ServerContext())));
  stream->Handshake(kTimeout, [&](const absl::Status& status) {
    VARNIC_CHECK(!status.ok());
    ++failures;
    stream = nullptr;
  });
  beginner.Run();
  VARNIC_CHECK(failures == 1 && !beginner.peer().open());
  VARNIC_CHECK(beginner.peer().Take().size() <= kTlsOutput);
}

}  // namespace
}  // namespace varnic::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  varnic::fuzz::QuietLogs();
  varnic::fuzz::FuzzInput input(data, size);
  if (input.TakeBool()) {
    varnic::fuzz::BeginTls(input);
  } else {
    varnic::fuzz::BeginPlain(input);
  }
  return 0;
}
