#ifndef CORE_HOST_BROWSER_LOGIN_GATE_H_
#define CORE_HOST_BROWSER_LOGIN_GATE_H_

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "core/host/browser/context_finder.h"
#include "core/host/browser/held_requests.h"
#include "core/host/browser/login_attempts.h"
#include "core/host/browser/request_replies.h"
#include "core/host/question_asker.h"
#include "core/net/lifetime.h"
#include "nlohmann/json.hpp"
#include "rpc/profile/profile.pb.h"

namespace varnic::host {

// Has the clients asked for what a server or a proxy wants to know, so often and no oftener, and
// hands it over. Without an answer the request goes on without: the page gets what came with the
// challenge.
//
// Lives on the pipe's thread; what it is given outlives it.
class LoginGate {
 public:
  using QuestionKeys = std::function<std::vector<ProfileId>(const std::string& context)>;

  LoginGate(RequestReplies& replies, HeldRequests& held, ContextFinder& contexts,
            QuestionAsker& asker, QuestionKeys question_keys);
  LoginGate(const LoginGate&) = delete;
  LoginGate& operator=(const LoginGate&) = delete;

  // A Fetch.authRequired event.
  void OnChallenge(const nlohmann::json& event);

 private:
  using Ticket = HeldRequests::Ticket;

  void Ask(Ticket ticket, const std::string& request_id, const std::optional<std::string>& context,
           const rpc::Authenticate::Request& question);
  void Answer(Ticket ticket, const std::string& request_id,
              const rpc::Authenticate::Response& response);

  RequestReplies& replies_;
  HeldRequests& held_;
  ContextFinder& contexts_;
  QuestionAsker& asker_;
  const QuestionKeys question_keys_;
  LoginAttempts attempts_;
  net::Lifetime lifetime_;
};

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_LOGIN_GATE_H_
