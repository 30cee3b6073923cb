#include "core/client/client.h"

#include <algorithm>
#include <utility>

#include "absl/strings/str_cat.h"
#include "core/common/rpc/fatal.h"
#include "core/net/address.h"
#include "core/net/frame_message.h"
#include "core/net/tls_socket.h"

namespace varnic {

// One unary call, from Call() to its callback.
class Client::UnaryCall : public net::GrpcClientCall::Visitor {
 public:
  UnaryCall(Client& client, CallId id, const google::protobuf::MethodDescriptor& method,
            const google::protobuf::Message& request, google::protobuf::Message& response,
            Done done)
      : client_(client),
        id_(id),
        path_(absl::StrCat("/", method.service()->full_name(), "/", method.name())),
        request_(net::FrameMessage(request)),
        response_(response),
        done_(std::move(done)),
        timer_(client.loop_) {}

  ~UnaryCall() override {
    if (call_ != nullptr) call_->Cancel();
  }

  void SetTimeout(absl::Duration timeout) {
    if (timeout == absl::InfiniteDuration()) return;
    deadline_ = absl::Now() + timeout;
    timer_.Start(timeout, [this] {
      client_.End(id_,
                  absl::DeadlineExceededError(absl::StrCat("no answer to ", path_, " in time")));
    });
  }

  // False if `connection` takes no more calls.
  bool Start(net::GrpcClientConnection& connection) {
    call_ = connection.StartCall(path_, deadline_ - absl::Now(), *this);
    if (call_ == nullptr) return false;
    call_->Send(std::move(request_), /*half_close=*/true);
    return true;
  }

  Done TakeDone() { return std::move(done_); }

 private:
  void OnMessage(std::string_view message) override {
    if (std::exchange(answered_, true)) {
      failure_ = absl::InternalError(absl::StrCat("more than one answer to ", path_));
    } else if (!response_.ParseFromArray(message.data(), static_cast<int>(message.size()))) {
      failure_ = absl::InternalError(absl::StrCat("the answer to ", path_, " is not a serialised ",
                                                  response_.GetDescriptor()->full_name()));
    }
  }

  void OnDone(const absl::Status& status) override {
    call_ = nullptr;
    if (status.ok() && !answered_) failure_ = absl::InternalError("no answer, but status OK");
    client_.End(id_, status.ok() ? failure_ : status);
  }

  Client& client_;
  const CallId id_;
  const std::string path_;
  std::string request_;
  google::protobuf::Message& response_;
  Done done_;
  absl::Time deadline_ = absl::InfiniteFuture();
  net::Timer timer_;
  net::GrpcClientCall* call_ = nullptr;  // While it is on the wire.
  bool answered_ = false;
  absl::Status failure_;
};

// The connection that calls are made on, and earlier ones that the server is about to close but on
// which calls are still open.
class Client::Connections : private net::GrpcClientConnection::Visitor {
 public:
  // Null while there is none.
  net::GrpcClientConnection* current() { return current_; }

  void Add(Client& client, std::unique_ptr<net::ByteStream> stream) {
    net::GrpcClientOptions options;
    options.max_message_bytes = client.options_.max_message_bytes;
    options.keepalive_time = client.options_.keepalive_time;
    options.keepalive_timeout = client.options_.keepalive_timeout;
    // gRPC clients name the host of a Unix-domain socket so.
    const std::string authority = client.target_->kind == net::Address::Kind::kUnix
                                      ? "localhost"
                                      : client.target_->ToString();
    net::GrpcClientConnection::Visitor& visitor = *this;
    all_.push_back(std::make_unique<net::GrpcClientConnection>(client.loop_, std::move(stream),
                                                               authority, options, visitor));
    current_ = all_.back().get();
  }

 private:
  void OnGoaway(net::GrpcClientConnection& connection) override { Retire(connection); }

  void OnConnectionClosed(net::GrpcClientConnection& connection,
                          const absl::Status& /*status*/) override {
    Retire(connection);
    all_.erase(std::find_if(all_.begin(), all_.end(),
                            [&](const auto& held) { return held.get() == &connection; }));
  }

  void Retire(const net::GrpcClientConnection& connection) {
    if (current_ == &connection) current_ = nullptr;
  }

  std::vector<std::unique_ptr<net::GrpcClientConnection>> all_;
  net::GrpcClientConnection* current_ = nullptr;
};

namespace {

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

}  // namespace

Client::Client(net::EventLoop& loop, const std::string& target, const ClientOptions& options)
    : loop_(loop),
      options_(options),
      target_(ParseTarget(target, options)),
      tls_(MakeTlsContext(options)),
      connections_(std::make_unique<Connections>()),
      connect_timer_(loop) {}

Client::~Client() {
  closing_ = true;
  while (!calls_.empty()) Cancel(calls_.begin()->first);
}

Client::CallId Client::Call(const google::protobuf::MethodDescriptor& method,
                            const google::protobuf::Message& request,
                            google::protobuf::Message& response, absl::Duration timeout,
                            Done done) {
  VARNIC_CHECK(loop_.IsLoopThread());
  const CallId id = ++last_call_id_;
  if (closing_) return id;
  auto call = std::make_unique<UnaryCall>(*this, id, method, request, response, std::move(done));
  call->SetTimeout(timeout);
  UnaryCall& started = *calls_.emplace(id, std::move(call)).first->second;
  net::GrpcClientConnection* connection = connections_->current();
  if (connection == nullptr || !started.Start(*connection)) {
    waiting_.push_back(id);
    Connect();
  }
  return id;
}

void Client::Cancel(CallId call_id) {
  End(call_id, absl::CancelledError("the caller cancelled the call"));
}

absl::Status Client::CallAndWait(const google::protobuf::MethodDescriptor& method,
                                 const google::protobuf::Message& request,
                                 google::protobuf::Message& response, absl::Duration timeout) {
  // The loop may not have run for long, and the server has closed a connection that nobody used:
  // the first turn finds that its words have come in, the second one hears them.
  for (int turn = 0; turn < 2 && !loop_.IsStopped(); ++turn) loop_.RunPending();
  absl::Status result;
  bool ended = false;
  const CallId id = Call(method, request, response, timeout, [&](const absl::Status& status) {
    result = status;
    ended = true;
  });
  if (!loop_.RunUntil([&] { return ended; })) {
    End(id, absl::CancelledError("the loop was stopped"));
  }
  return result;
}

void Client::Connect() {
  if (connector_ != nullptr) return;
  if (!target_.ok() || !tls_.ok()) {
    loop_.Post(lifetime_.Guard(
        [this] { FailWaitingCalls(target_.ok() ? tls_.status() : target_.status()); }));
    return;
  }
  auto done = [this](absl::StatusOr<std::unique_ptr<net::ByteStream>> stream) {
    OnConnected(std::move(stream));
  };
  connector_ = *tls_ == nullptr ? net::Connector::Connect(loop_, *target_, std::move(done))
                                : net::ConnectTls(loop_, *target_, **tls_, std::move(done));
  connect_timer_.Start(options_.connect_timeout, [this] {
    OnConnected(absl::UnavailableError(
        absl::StrCat("cannot connect to ", target_->ToString(), ": nobody answers")));
  });
}

void Client::OnConnected(absl::StatusOr<std::unique_ptr<net::ByteStream>> stream) {
  connect_timer_.Cancel();
  connector_ = nullptr;
  if (!stream.ok()) return FailWaitingCalls(stream.status());
  connections_->Add(*this, *std::move(stream));
  for (const CallId id : std::exchange(waiting_, {})) {
    const auto call = calls_.find(id);
    if (call == calls_.end()) continue;  // Has ended while it waited.
    const bool started = call->second->Start(*connections_->current());
    VARNIC_CHECK(started);
  }
}

void Client::FailWaitingCalls(const absl::Status& status) {
  for (const CallId id : std::exchange(waiting_, {})) End(id, status);
}

void Client::End(CallId call_id, absl::Status status) {
  const auto found = calls_.find(call_id);
  if (found == calls_.end()) return;
  const Done done = found->second->TakeDone();
  calls_.erase(found);
  done(std::move(status));
}

}  // namespace varnic
