#include "core/net/tls_stream.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <utility>

#include "absl/strings/str_cat.h"
#include "core/common/rpc/fatal.h"

namespace varnic::net {
namespace {

// How much is encrypted before the stream below is asked whether it takes it.
constexpr std::size_t kWriteBytes = 64 << 10;
// The largest TLS record's content.
constexpr std::size_t kRecordBytes = 16 << 10;

absl::Status Failure(const std::string& what, const ssl_st* ssl) {
  return absl::UnavailableError(absl::StrCat(what, ": ", TlsFailureText(ssl)));
}

}  // namespace

// Feeds OpenSSL from arrived_, and takes everything that it writes into outgoing_, without buffers
// of its own.
class TlsStream::Bio {
 public:
  static BIO* New(TlsStream& stream) {
    // For the life of the process, as OpenSSL's own methods are.
    static const BIO_METHOD* const method = MakeMethod();
    BIO* bio = BIO_new(method);
    BIO_set_data(bio, &stream);
    BIO_set_init(bio, 1);
    return bio;
  }

 private:
  static const BIO_METHOD* MakeMethod() {
    BIO_METHOD* method = BIO_meth_new(BIO_TYPE_SOURCE_SINK, "byte stream");
    BIO_meth_set_read(method, Read);
    BIO_meth_set_write(method, Write);
    BIO_meth_set_ctrl(method, Control);
    return method;
  }

  static TlsStream& Self(BIO* bio) { return *static_cast<TlsStream*>(BIO_get_data(bio)); }

  static int Read(BIO* bio, char* buffer, int size) {
    BIO_clear_retry_flags(bio);
    std::string_view& arrived = Self(bio).arrived_;
    if (arrived.empty()) {
      BIO_set_retry_read(bio);
      return -1;
    }
    const std::size_t taken = arrived.copy(buffer, static_cast<std::size_t>(size));
    arrived.remove_prefix(taken);
    return static_cast<int>(taken);
  }

  static int Write(BIO* bio, const char* bytes, int size) {
    BIO_clear_retry_flags(bio);
    Self(bio).outgoing_.append(bytes, static_cast<std::size_t>(size));
    return size;
  }

  static long Control(BIO* /*bio*/, int command, long /*number*/, void* /*pointer*/) {
    return command == BIO_CTRL_FLUSH ? 1 : 0;
  }
};

TlsStream::TlsStream(EventLoop& loop, std::unique_ptr<ByteStream> below, SslHandle ssl)
    : loop_(loop),
      peer_(below->peer()),
      ssl_(std::move(ssl)),
      below_(std::move(below)),
      timer_(loop) {
  peer_.kind = Peer::Kind::kTls;
  BIO* bio = Bio::New(*this);
  SSL_set_bio(ssl_.get(), bio, bio);
}

TlsStream::~TlsStream() {
  SayFarewell();
}

void TlsStream::SayFarewell() {
  if (state_ != State::kOpen || !outgoing_.empty()) return;
  if ((SSL_get_shutdown(ssl_.get()) & SSL_SENT_SHUTDOWN) != 0) return;
  ERR_clear_error();
  SSL_shutdown(ssl_.get());
  Flush();
}

void TlsStream::ShutdownWrite() {
  ends_writing_ = true;
  EndWriting();
}

void TlsStream::EndWriting() {
  SayFarewell();
  if (outgoing_.empty()) below_->ShutdownWrite();
}

void TlsStream::Handshake(absl::Duration timeout, Done done) {
  done_ = std::move(done);
  if (SSL_is_server(ssl_.get()) != 0) {
    SSL_set_accept_state(ssl_.get());
  } else {
    SSL_set_connect_state(ssl_.get());
  }
  if (timeout != absl::InfiniteDuration()) {
    timer_.Start(timeout, [this] {
      EndHandshake(absl::DeadlineExceededError("the TLS handshake took too long"));
    });
  }
  below_->Start(*this);
  // A client begins.
  loop_.Post(lifetime_.Guard([this] {
    if (state_ == State::kHandshake) AdvanceHandshake();
  }));
}

void TlsStream::Start(ByteStream::Visitor& visitor) {
  VARNIC_CHECK(visitor_ == nullptr);
  visitor_ = &visitor;
}

std::size_t TlsStream::Write(std::string_view bytes) {
  if (state_ != State::kOpen) return 0;
  std::size_t written = 0;
  while (written < bytes.size() && outgoing_.empty()) {
    const std::string_view piece = bytes.substr(written, kWriteBytes);
    ERR_clear_error();
    if (SSL_write(ssl_.get(), piece.data(), static_cast<int>(piece.size())) <= 0) {
      loop_.Post(
          lifetime_.Guard([this, status = Failure("cannot encrypt", ssl_.get())] { End(status); }));
      return written;
    }
    written += piece.size();
    Flush();
  }
  if (!outgoing_.empty()) visitor_waits_ = true;
  return written;
}

void TlsStream::OnBytes(std::string_view bytes) {
  if (state_ == State::kEnded) return;
  arrived_ = bytes;
  if (state_ == State::kHandshake) {
    // The owner may destroy this when it hears of the handshake's end.
    auto read = lifetime_.Guard([this] { Read(); });
    AdvanceHandshake();
    read();
  } else {
    Read();
  }
}

void TlsStream::OnWritable() {
  Flush();
  if (!outgoing_.empty()) return;
  if (ends_writing_) return EndWriting();
  if (state_ != State::kOpen || visitor_ == nullptr) return;
  if (std::exchange(visitor_waits_, false)) visitor_->OnWritable();
}

void TlsStream::OnClosed(const absl::Status& status) {
  if (state_ == State::kHandshake) {
    EndHandshake(status.ok() ? absl::UnavailableError("the peer left in the TLS handshake")
                             : status);
  } else if (state_ == State::kOpen) {
    End(status);
  }
}

void TlsStream::AdvanceHandshake() {
  ERR_clear_error();
  const int result = SSL_do_handshake(ssl_.get());
  const bool needs_more = result != 1 && SSL_get_error(ssl_.get(), result) == SSL_ERROR_WANT_READ;
  absl::Status status;
  if (result != 1 && !needs_more) status = Failure("the TLS handshake failed", ssl_.get());
  Flush();  // The last words of a failed handshake, too.
  if (needs_more) return;
  EndHandshake(status.ok() ? CheckHandshake() : status);
}

absl::Status TlsStream::CheckHandshake() const {
  const unsigned char* protocol = nullptr;
  unsigned size = 0;
  SSL_get0_alpn_selected(ssl_.get(), &protocol, &size);
  if (std::string_view(reinterpret_cast<const char*>(protocol), size) == "h2") {
    return absl::OkStatus();
  }
  return absl::UnavailableError("the peer does not speak \"h2\" (ALPN)");
}

void TlsStream::EndHandshake(const absl::Status& status) {
  timer_.Cancel();
  state_ = status.ok() ? State::kOpen : State::kEnded;
  if (status.ok()) peer_.certificate = PeerCertificate(ssl_.get());
  const Done done = std::exchange(done_, nullptr);
  done(status);
}

void TlsStream::Read() {
  if (state_ != State::kOpen) return;
  VARNIC_CHECK(visitor_ != nullptr);
  // What calls back may make another stream read before it returns.
  static thread_local std::string spare;
  std::string plain = std::exchange(spare, std::string());
  plain.clear();
  const std::optional<absl::Status> end = Decrypt(plain);
  Flush();  // An answer to what was TLS's own.
  auto finish = lifetime_.Guard([this](const absl::Status& status) { End(status); });
  if (!plain.empty()) visitor_->OnBytes(plain);
  spare = std::move(plain);
  if (end.has_value()) finish(*end);
}

std::optional<absl::Status> TlsStream::Decrypt(std::string& plain) {
  while (true) {
    const std::size_t before = plain.size();
    plain.resize(before + kRecordBytes);
    ERR_clear_error();
    const int size = SSL_read(ssl_.get(), plain.data() + before, static_cast<int>(kRecordBytes));
    plain.resize(before + static_cast<std::size_t>(std::max(size, 0)));
    if (size > 0) continue;
    const int error = SSL_get_error(ssl_.get(), size);
    if (error == SSL_ERROR_WANT_READ) return std::nullopt;
    if (error == SSL_ERROR_ZERO_RETURN) return absl::OkStatus();
    return Failure("the TLS connection failed", ssl_.get());
  }
}

void TlsStream::Flush() {
  if (outgoing_.empty()) return;
  const std::size_t written = below_->Write(outgoing_);
  if (written == outgoing_.size()) {
    outgoing_ = std::string();  // An idle connection keeps no buffer.
  } else {
    outgoing_.erase(0, written);
  }
}

void TlsStream::End(const absl::Status& status) {
  if (std::exchange(state_, State::kEnded) == State::kEnded) return;
  visitor_->OnClosed(status);
}

}  // namespace varnic::net
