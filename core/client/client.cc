#include "core/client/client.h"

#include <optional>
#include <utility>

#include "absl/strings/str_cat.h"
#include "core/client/connection_keeper.h"
#include "core/common/rpc/fatal.h"
#include "core/net/block_pool.h"
#include "core/net/frame_message.h"

namespace varnic {
namespace {

bool IsPathOf(const std::string& path, const google::protobuf::MethodDescriptor& method) {
  const std::string& service = method.service()->full_name();
  const std::string& name = method.name();
  return path.size() == service.size() + name.size() + 2 &&
         path.compare(1, service.size(), service) == 0 &&
         path.compare(service.size() + 2, name.size(), name) == 0;
}

// The answer of Call(), whose response is its caller's.
class LentAnswer final : public Client::Answer {
 public:
  LentAnswer(google::protobuf::Message& response, Client::Done done)
      : response_(response), done_(std::move(done)) {}

  google::protobuf::Message& response() override { return response_; }
  void Done(absl::Status status) override { done_(std::move(status)); }

 private:
  google::protobuf::Message& response_;
  const Client::Done done_;
};

}  // namespace

// One unary call, from Start() to the end.
class Client::UnaryCall final : public net::Pooled,
                                private ConnectionKeeper::Waiter,
                                private net::GrpcClientCall::Visitor {
 public:
  UnaryCall(Client& client, CallId id, std::shared_ptr<const std::string> path,
            const google::protobuf::Message& request, std::unique_ptr<Answer> answer)
      : client_(client),
        id_(id),
        path_(std::move(path)),
        request_(net::FrameMessage(request)),
        answer_(std::move(answer)) {}

  ~UnaryCall() override {
    client_.deadlines_.Remove(id_, due_);
    client_.connections_->Leave(ticket_);
    if (call_ != nullptr) call_->Cancel();
  }

  void Start(absl::Duration timeout) {
    due_ = client_.deadlines_.Add(id_, timeout);
    Send();
  }

  absl::Status Overdue() const {
    return absl::DeadlineExceededError(absl::StrCat("no answer to ", *path_, " in time"));
  }

  std::unique_ptr<Answer> TakeAnswer() { return std::move(answer_); }

 private:
  void Send() {
    net::GrpcClientConnection* connection = client_.connections_->current();
    if (connection != nullptr && StartOn(*connection)) return;
    ticket_ = client_.connections_->Wait(*this, ConnectionKeeper::Patience::kOneAttempt);
  }

  // False if `connection` takes no more calls.
  bool StartOn(net::GrpcClientConnection& connection) {
    call_ = connection.StartCall(*path_, CallDeadlines::Until(due_), *this);
    if (call_ == nullptr) return false;
    call_->Send(request_, /*half_close=*/true);  // A copy: it may be sent again.
    return true;
  }

  void OnConnected(net::GrpcClientConnection& connection) override {
    const bool started = StartOn(connection);
    VARNIC_CHECK(started);
  }

  void OnConnectFailed(const absl::Status& why,
                       std::optional<absl::Duration> /*retry_in*/) override {
    client_.End(id_, why);
  }

  void OnMessage(std::string_view message) override {
    google::protobuf::Message& response = answer_->response();
    if (std::exchange(answered_, true)) {
      failure_ = absl::InternalError(absl::StrCat("more than one answer to ", *path_));
    } else if (!response.ParseFromArray(message.data(), static_cast<int>(message.size()))) {
      failure_ = absl::InternalError(absl::StrCat("the answer to ", *path_, " is not a serialised ",
                                                  response.GetDescriptor()->full_name()));
    }
  }

  // As gRPC does: once, and without a word to the caller.
  bool OnUnprocessed() override {
    if (std::exchange(sent_again_, true)) return false;
    call_ = nullptr;
    Send();
    return true;
  }

  void OnDone(const absl::Status& status) override {
    call_ = nullptr;
    if (status.ok() && !answered_) failure_ = absl::InternalError("no answer, but status OK");
    client_.End(id_, status.ok() ? failure_ : status);
  }

  Client& client_;
  const CallId id_;
  const std::shared_ptr<const std::string> path_;
  const std::string request_;
  std::unique_ptr<Answer> answer_;
  CallDeadlines::TimePoint due_ = CallDeadlines::kNone;
  ConnectionKeeper::Ticket ticket_ = 0;  // Of its wait for a connection.
  net::GrpcClientCall* call_ = nullptr;  // While it is on the wire.
  bool answered_ = false;
  bool sent_again_ = false;
  absl::Status failure_;
};

Client::Client(net::EventLoop& loop, const std::string& target, const ClientOptions& options)
    : loop_(loop),
      options_(options),
      deadlines_(loop,
                 [this](CallId call_id) {
                   const auto found = calls_.find(call_id);
                   if (found != calls_.end()) End(call_id, found->second->Overdue());
                 }),
      connections_(std::make_unique<ConnectionKeeper>(loop, target, options)) {}

Client::~Client() {
  if (connections_->streams() > 0) VARNIC_FATAL("a client is destroyed before its streams");
  closing_ = true;
  while (!calls_.empty()) Cancel(calls_.begin()->first);
}

Client::CallId Client::Call(const google::protobuf::MethodDescriptor& method,
                            const google::protobuf::Message& request,
                            google::protobuf::Message& response, absl::Duration timeout,
                            Done done) {
  return Start(method, request, timeout, std::make_unique<LentAnswer>(response, std::move(done)));
}

Client::CallId Client::Start(const google::protobuf::MethodDescriptor& method,
                             const google::protobuf::Message& request, absl::Duration timeout,
                             std::unique_ptr<Answer> answer) {
  VARNIC_CHECK(loop_.IsLoopThread());
  const CallId id = ++last_call_id_;
  if (closing_) return id;
  auto call = std::make_unique<UnaryCall>(*this, id, PathOf(method), request, std::move(answer));
  UnaryCall& started = *calls_.emplace(id, std::move(call)).first->second;
  started.Start(timeout);
  return id;
}

// Of the last call, mostly. The descriptor's address says nothing: descriptors may come and go.
std::shared_ptr<const std::string> Client::PathOf(
    const google::protobuf::MethodDescriptor& method) {
  if (last_path_ == nullptr || !IsPathOf(*last_path_, method)) {
    last_path_ = std::make_shared<const std::string>(
        absl::StrCat("/", method.service()->full_name(), "/", method.name()));
  }
  return last_path_;
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

void Client::End(CallId call_id, absl::Status status) {
  const auto found = calls_.find(call_id);
  if (found == calls_.end()) return;
  const std::unique_ptr<Answer> answer = found->second->TakeAnswer();
  calls_.erase(found);
  answer->Done(std::move(status));
}

}  // namespace varnic
