#include "core/client/connection_keeper.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "absl/strings/str_cat.h"
#include "core/net/tls_socket.h"

namespace varnic {
namespace {

// What servers of other makes take: gRPC's own default.
constexpr absl::Duration kTcpKeepaliveTime = absl::Minutes(5);

absl::StatusOr<net::Address> ParseTarget(const std::string& target, const ClientOptions& options) {
  absl::StatusOr<net::Address> address = net::Address::Parse(target);
  if (address.ok() && options.tls.has_value() && address->kind != net::Address::Kind::kTcp) {
    return absl::InvalidArgumentError(
        absl::StrCat("cannot connect to ", target, " with TLS: TLS is for TCP addresses"));
  }
  return address;
}

absl::StatusOr<std::unique_ptr<net::TlsClientContext>> MakeTlsContext(
    const ClientOptions& options) {
  if (!options.tls.has_value()) return nullptr;
  return net::TlsClientContext::Create(*options.tls);
}

absl::Duration KeepaliveTime(const net::Address& target, const ClientOptions& options) {
  const bool is_tcp = target.kind == net::Address::Kind::kTcp;
  return options.keepalive_time.value_or(is_tcp ? kTcpKeepaliveTime : absl::InfiniteDuration());
}

}  // namespace

ConnectionKeeper::ConnectionKeeper(net::EventLoop& loop, const std::string& target,
                                   const ClientOptions& options)
    : loop_(loop),
      options_(options),
      target_(ParseTarget(target, options)),
      tls_(MakeTlsContext(options)),
      connect_timer_(loop),
      pacer_(options.backoff),
      retry_timer_(loop) {}

ConnectionKeeper::~ConnectionKeeper() = default;

absl::Status ConnectionKeeper::SetupStatus() const {
  return target_.ok() ? tls_.status() : target_.status();
}

ConnectionKeeper::Ticket ConnectionKeeper::Wait(Waiter& waiter, Patience patience) {
  const Ticket ticket = ++last_ticket_;
  waits_.emplace(ticket, Waiting{&waiter, patience != Patience::kOneAttempt});
  if (patience == Patience::kOneAttempt) {
    Connect();
  } else if (patience == Patience::kNow) {
    AttemptForStreams();
  } else if (!retry_is_planned_ && !attempt_is_paced_) {
    RetryIn(pacer_.UntilNext());
  }
  return ticket;
}

void ConnectionKeeper::AttemptForStreams() {
  if (std::exchange(attempt_is_paced_, true)) return;
  retry_timer_.Cancel();
  retry_is_planned_ = false;
  pacer_.OnAttempt();
  Connect();
}

void ConnectionKeeper::RetryIn(absl::Duration delay) {
  retry_is_planned_ = true;
  retry_timer_.Start(delay, [this] {
    retry_is_planned_ = false;
    if (AnyoneKeepsTrying()) return AttemptForStreams();
    pacer_.Reset();
  });
}

void ConnectionKeeper::Connect() {
  if (connector_ != nullptr) return;
  const absl::Status setup = SetupStatus();
  if (!setup.ok()) {
    loop_.Post(lifetime_.Guard([this, setup] { TellFailed(setup); }));
    return;
  }
  auto done = [this](absl::StatusOr<std::unique_ptr<net::ByteStream>> stream) {
    OnAttemptEnded(std::move(stream));
  };
  connector_ = *tls_ == nullptr ? net::Connector::Connect(loop_, *target_, std::move(done))
                                : net::ConnectTls(loop_, *target_, **tls_, std::move(done));
  connect_timer_.Start(options_.connect_timeout, [this] {
    OnAttemptEnded(absl::UnavailableError(
        absl::StrCat("cannot connect to ", target_->ToString(), ": nobody answers")));
  });
}

void ConnectionKeeper::OnAttemptEnded(absl::StatusOr<std::unique_ptr<net::ByteStream>> stream) {
  connect_timer_.Cancel();
  connector_ = nullptr;
  if (!stream.ok()) return TellFailed(stream.status());
  Add(*std::move(stream));
  TellConnected();
}

void ConnectionKeeper::Add(std::unique_ptr<net::ByteStream> stream) {
  net::GrpcClientOptions options;
  options.max_message_bytes = options_.max_message_bytes;
  options.keepalive_time = KeepaliveTime(*target_, options_);
  options.keepalive_timeout = options_.keepalive_timeout;
  // gRPC clients name the host of a Unix-domain socket so.
  const std::string authority =
      target_->kind == net::Address::Kind::kUnix ? "localhost" : target_->ToString();
  net::GrpcClientConnection::Visitor& visitor = *this;
  connections_.push_back(std::make_unique<net::GrpcClientConnection>(loop_, std::move(stream),
                                                                     authority, options, visitor));
  current_ = connections_.back().get();
}

void ConnectionKeeper::TellConnected() {
  attempt_is_paced_ = false;
  retry_is_planned_ = false;
  retry_timer_.Cancel();
  pacer_.OnSuccess();
  for (const auto& [ticket, waiting] : std::exchange(waits_, {})) {
    waiting.waiter->OnConnected(*current_);
  }
}

// Who is told may end other waits, and begin new ones.
void ConnectionKeeper::TellFailed(const absl::Status& why) {
  const bool paced = std::exchange(attempt_is_paced_, false);
  // Also the connector's way to say what is wrong with the target.
  const bool hopeless = !SetupStatus().ok() || absl::IsInvalidArgument(why);
  std::optional<absl::Duration> retry_in;
  if (!hopeless) retry_in = pacer_.UntilNext();
  if (paced && !hopeless) RetryIn(*retry_in);
  for (const Ticket ticket : Tickets()) {
    const auto found = waits_.find(ticket);
    if (found == waits_.end()) continue;
    const Waiting waiting = found->second;
    const bool over = hopeless || !waiting.keeps_trying;
    if (over) waits_.erase(found);
    if (over || paced) waiting.waiter->OnConnectFailed(why, retry_in);
  }
}

bool ConnectionKeeper::AnyoneKeepsTrying() const {
  return std::any_of(waits_.begin(), waits_.end(),
                     [](const auto& wait) { return wait.second.keeps_trying; });
}

std::vector<ConnectionKeeper::Ticket> ConnectionKeeper::Tickets() const {
  std::vector<Ticket> tickets;
  tickets.reserve(waits_.size());
  for (const auto& [ticket, waiting] : waits_) tickets.push_back(ticket);
  return tickets;
}

void ConnectionKeeper::OnGoaway(net::GrpcClientConnection& connection) {
  Retire(connection);
}

void ConnectionKeeper::OnConnectionClosed(net::GrpcClientConnection& connection,
                                          const absl::Status& /*status*/) {
  Retire(connection);
  connections_.erase(std::find_if(connections_.begin(), connections_.end(),
                                  [&](const auto& held) { return held.get() == &connection; }));
}

void ConnectionKeeper::Retire(const net::GrpcClientConnection& connection) {
  if (current_ == &connection) current_ = nullptr;
}

}  // namespace varnic
