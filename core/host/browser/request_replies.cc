#include "core/host/browser/request_replies.h"

#include <utility>

namespace varnic::host {
namespace {

using Json = nlohmann::json;

Json ContinueParams(const std::string& request_id, const Json& headers) {
  Json params = {{"requestId", request_id}};
  if (!headers.is_null()) params["headers"] = headers;
  return params;
}

Json AuthAnswer(const std::string& request_id, Json response) {
  return {{"requestId", request_id}, {"authChallengeResponse", std::move(response)}};
}

}  // namespace

RequestReplies::RequestReplies(DevToolsPipe& devtools, Scheduler& scheduler,
                               const RequestReplyLimits& limits)
    : devtools_(devtools), scheduler_(scheduler), limits_(limits) {}

RequestReplies::~RequestReplies() {
  if (!devtools_.is_open()) return;
  for (const Reply& reply : waiting_) {
    devtools_.Call(CommandOf(reply), [](const absl::StatusOr<Json>&) {});
  }
}

void RequestReplies::Continue(const std::string& request_id, Json headers) {
  Add({Kind::kContinue, request_id, std::move(headers)});
}

void RequestReplies::Refuse(const std::string& request_id) {
  Add({Kind::kRefuse, request_id});
}

void RequestReplies::Authenticate(const std::string& request_id, const std::string& username,
                                  const std::string& password) {
  Add({Kind::kAuthenticate, request_id, nullptr, username, password});
}

void RequestReplies::CancelLogin(const std::string& request_id) {
  Add({Kind::kCancelLogin, request_id});
}

DevToolsCommand RequestReplies::CommandOf(const Reply& reply) {
  switch (reply.kind) {
    case Kind::kContinue:
      return {"Fetch.continueRequest", ContinueParams(reply.request_id, reply.headers)};
    case Kind::kRefuse:
      return {"Fetch.failRequest",
              {{"requestId", reply.request_id}, {"errorReason", "AccessDenied"}}};
    case Kind::kAuthenticate:
      return {"Fetch.continueWithAuth",
              AuthAnswer(reply.request_id, {{"response", "ProvideCredentials"},
                                            {"username", reply.username},
                                            {"password", reply.password}})};
    case Kind::kCancelLogin:
      break;
  }
  return {"Fetch.continueWithAuth", AuthAnswer(reply.request_id, {{"response", "CancelAuth"}})};
}

void RequestReplies::Add(Reply reply) {
  if (!devtools_.is_open()) return;
  if (waiting_.size() >= limits_.waiting) {
    waiting_.clear();
    return devtools_.Close(
        absl::ResourceExhaustedError("the browser has too many requests that wait"));
  }
  waiting_.push_back(std::move(reply));
  SendWaiting();
}

void RequestReplies::SendWaiting() {
  while (!waiting_.empty() && in_flight_ < limits_.in_flight && retry_timer_ == nullptr) {
    const auto reply = std::make_shared<const Reply>(std::move(waiting_.front()));
    waiting_.pop_front();
    Send(reply);
  }
}

void RequestReplies::Send(const std::shared_ptr<const Reply>& reply) {
  ++in_flight_;
  devtools_.Call(CommandOf(*reply),
                 lifetime_.Guard([this, reply](const absl::StatusOr<Json>& answer) {
                   OnAnswer(reply, answer.status());
                 }));
}

void RequestReplies::OnAnswer(const std::shared_ptr<const Reply>& reply,
                              const absl::Status& status) {
  --in_flight_;
  if (!devtools_.is_open()) return waiting_.clear();
  if (absl::IsResourceExhausted(status)) {
    waiting_.push_front(*reply);
    if (retry_timer_ == nullptr) {
      retry_timer_ = scheduler_.RunAfter(limits_.retry_time, [this] {
        retry_timer_ = nullptr;
        SendWaiting();
      });
    }
    return;
  }
  // It is gone, or the browser could not read that: a request that is gone does not mind this.
  if (!status.ok() && reply->kind == Kind::kAuthenticate) CancelLogin(reply->request_id);
  if (!status.ok() && !reply->headers.is_null()) Continue(reply->request_id);
  SendWaiting();
}

}  // namespace varnic::host
