#include "core/net/tls_socket.h"

#include <list>
#include <optional>
#include <string>
#include <utility>

#include "absl/strings/str_cat.h"
#include "base/logging.h"
#include "core/net/inherited_socket.h"
#include "core/net/log_field.h"
#include "core/net/log_limiter.h"
#include "core/net/tls_stream.h"

namespace varnic::net {
namespace {

class TlsListener : public Listener {
 public:
  TlsListener(EventLoop& loop, const TlsServerOptions& options,
              std::unique_ptr<TlsServerContext> context, OnAccept on_accept, HasRoom has_room)
      : loop_(loop),
        options_(options),
        context_(std::move(context)),
        on_accept_(std::move(on_accept)),
        has_room_(std::move(has_room)) {}

  absl::Status Start(const Address& address) {
    return Keep(Listen(loop_, address, Handshaker(), SocketOptions()));
  }
  absl::Status Start(int fd) { return Keep(Adopt(loop_, fd, Handshaker(), SocketOptions())); }

  const Address& address() const override { return listener_->address(); }
  std::uint64_t refused() const override { return listener_->refused() + refused_; }
  std::size_t handshakes() const override { return handshakes_.size(); }

 private:
  using Handshakes = std::list<std::unique_ptr<TlsStream>>;

  static ListenerOptions SocketOptions() {
    ListenerOptions options;
    options.beyond_loopback = true;
    return options;
  }

  OnAccept Handshaker() {
    return [this](std::unique_ptr<ByteStream> stream) { Handshake(std::move(stream)); };
  }

  absl::Status Keep(absl::StatusOr<std::unique_ptr<Listener>> listener) {
    if (!listener.ok()) return listener.status();
    listener_ = *std::move(listener);
    return absl::OkStatus();
  }

  void Handshake(std::unique_ptr<ByteStream> socket) {
    if (!handshakes_.empty() && IsFull()) {
      End(handshakes_.begin(), absl::ResourceExhaustedError("too many handshakes at a time"));
    }
    const auto place = handshakes_.insert(
        handshakes_.end(),
        std::make_unique<TlsStream>(loop_, std::move(socket), context_->NewConnection()));
    (*place)->Handshake(options_.handshake_timeout,
                        [this, place](const absl::Status& status) { End(place, status); });
  }

  bool IsFull() const {
    return handshakes_.size() >= options_.max_handshakes || (has_room_ && !has_room_());
  }

  void End(Handshakes::iterator place, const absl::Status& status) {
    std::unique_ptr<TlsStream> stream = std::move(*place);
    handshakes_.erase(place);
    if (status.ok()) {
      on_accept_(std::move(stream));
    } else {
      Refuse(stream->peer(), status);
    }
  }

  void Refuse(const Peer& peer, const absl::Status& status) {
    ++refused_;
    const std::optional<std::uint64_t> left_out = refusals_.Admit();
    if (left_out && logging::ShouldCreateLogMessage(logging::LOGGING_WARNING)) {
      logging::LogMessage(__FILE__, __LINE__, logging::LOGGING_WARNING).stream()
          << "Refused a connection" << LogField("address", address().ToString()) << " "
          << peer.ToString() << LogField("reason", std::string(status.message()))
          << LogLimiter::More(*left_out);
    }
  }

  EventLoop& loop_;
  const TlsServerOptions options_;
  const std::unique_ptr<TlsServerContext> context_;
  const OnAccept on_accept_;
  const HasRoom has_room_;
  std::uint64_t refused_ = 0;
  LogLimiter refusals_;
  std::unique_ptr<Listener> listener_;
  Handshakes handshakes_;  // The oldest first.
};

// Listens on `where`: an address, or an inherited socket of that address.
template <class Where>
absl::StatusOr<std::unique_ptr<Listener>> StartTls(EventLoop& loop, const Where& where,
                                                   const Address& address,
                                                   const TlsServerOptions& options,
                                                   Listener::OnAccept on_accept, HasRoom has_room) {
  if (address.kind != Address::Kind::kTcp) {
    return absl::InvalidArgumentError(
        absl::StrCat("cannot listen on ", address.ToString(), ": TLS is for TCP addresses"));
  }
  absl::StatusOr<std::unique_ptr<TlsServerContext>> context = TlsServerContext::Create(options);
  if (!context.ok()) {
    return absl::FailedPreconditionError(absl::StrCat("cannot listen on ", address.ToString(),
                                                      " with TLS: ", context.status().message()));
  }
  auto listener = std::make_unique<TlsListener>(loop, options, *std::move(context),
                                                std::move(on_accept), std::move(has_room));
  if (absl::Status status = listener->Start(where); !status.ok()) return status;
  return std::unique_ptr<Listener>(std::move(listener));
}

class TlsConnector : public Connector {
 public:
  TlsConnector(EventLoop& loop, const Address& address, const TlsClientContext& context, Done done)
      : loop_(loop), address_(address), context_(context), done_(std::move(done)) {
    connector_ = Connect(loop, address, [this](absl::StatusOr<std::unique_ptr<ByteStream>> socket) {
      if (socket.ok()) {
        Handshake(*std::move(socket));
      } else {
        Finish(socket.status());
      }
    });
  }

 private:
  void Handshake(std::unique_ptr<ByteStream> socket) {
    stream_ =
        std::make_unique<TlsStream>(loop_, std::move(socket), context_.NewConnection(address_));
    stream_->Handshake(absl::InfiniteDuration(), [this](const absl::Status& status) {
      if (status.ok()) {
        Finish(std::move(stream_));
      } else {
        Finish(absl::Status(status.code(), absl::StrCat("cannot connect to ", address_.ToString(),
                                                        ": ", status.message())));
      }
    });
  }

  // The owner may destroy this connector inside the call.
  void Finish(absl::StatusOr<std::unique_ptr<ByteStream>> result) {
    const Done done = std::move(done_);
    done(std::move(result));
  }

  EventLoop& loop_;
  const Address address_;
  const TlsClientContext& context_;
  Done done_;
  std::unique_ptr<Connector> connector_;
  std::unique_ptr<TlsStream> stream_;  // While the handshake goes on.
};

}  // namespace

absl::StatusOr<std::unique_ptr<Listener>> ListenTls(EventLoop& loop, const Address& address,
                                                    const TlsServerOptions& options,
                                                    Listener::OnAccept on_accept,
                                                    HasRoom has_room) {
  return StartTls(loop, address, address, options, std::move(on_accept), std::move(has_room));
}

absl::StatusOr<std::unique_ptr<Listener>> AdoptTls(EventLoop& loop, int fd,
                                                   const TlsServerOptions& options,
                                                   Listener::OnAccept on_accept, HasRoom has_room) {
  const absl::StatusOr<Address> address = InheritedAddress(fd);
  if (!address.ok()) return address.status();
  return StartTls(loop, fd, *address, options, std::move(on_accept), std::move(has_room));
}

std::unique_ptr<Connector> ConnectTls(EventLoop& loop, const Address& address,
                                      const TlsClientContext& context, Connector::Done done) {
  return std::make_unique<TlsConnector>(loop, address, context, std::move(done));
}

}  // namespace varnic::net
