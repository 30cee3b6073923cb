#include "core/host/browser/login_gate.h"

#include <utility>

#include "core/host/browser/auth_challenge.h"
#include "core/host/browser/event_field.h"

namespace varnic::host {

LoginGate::LoginGate(RequestReplies& replies, HeldRequests& held, ContextFinder& contexts,
                     QuestionAsker& asker, QuestionKeys question_keys)
    : replies_(replies),
      held_(held),
      contexts_(contexts),
      asker_(asker),
      question_keys_(std::move(question_keys)) {}

void LoginGate::OnChallenge(const nlohmann::json& event) {
  const std::string& request_id = EventText(event, {"requestId"});
  const std::string& frame_id = EventText(event, {"frameId"});
  std::optional<rpc::Authenticate::Request> question = LoginQuestion(event);
  if (!question) return replies_.CancelLogin(request_id);
  const int attempt = attempts_.Count(request_id, question->is_proxy());
  if (attempt > asker_.options().login_attempts) return replies_.CancelLogin(request_id);
  question->set_first_attempt(attempt == 1);
  const Ticket ticket = held_.Hold({request_id, frame_id, [&replies = replies_, request_id] {
                                      replies.CancelLogin(request_id);
                                    }});
  if (ticket == 0) return replies_.CancelLogin(request_id);
  contexts_.Find(frame_id, lifetime_.Guard([this, ticket, request_id, question = *question](
                                               const std::optional<std::string>& context) {
    Ask(ticket, request_id, context, question);
  }));
}

void LoginGate::Ask(Ticket ticket, const std::string& request_id,
                    const std::optional<std::string>& context,
                    const rpc::Authenticate::Request& question) {
  if (!held_.IsHeld(ticket)) return;
  if (!context) {
    rpc::Authenticate::Response cancel;
    cancel.set_cancel(true);
    return Answer(ticket, request_id, cancel);
  }
  auto on_answer =
      lifetime_.Guard([this, ticket, request_id](const rpc::Authenticate::Response& response) {
        Answer(ticket, request_id, response);
      });
  held_.SetQuestion(ticket,
                    asker_.AskLogin(question_keys_(*context), question, std::move(on_answer)));
}

void LoginGate::Answer(Ticket ticket, const std::string& request_id,
                       const rpc::Authenticate::Response& response) {
  if (!held_.Release(ticket)) return;
  if (response.cancel()) {
    replies_.CancelLogin(request_id);
  } else {
    replies_.Authenticate(request_id, response.username(), response.password());
  }
}

}  // namespace varnic::host
