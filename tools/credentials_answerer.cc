#include "tools/credentials_answerer.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "absl/status/statusor.h"
#include "absl/strings/str_cat.h"
#include "core/net/utf8_text.h"
#include "tools/password_file.h"
#include "tools/question_text.h"

namespace varnic::tools {

void CredentialsAnswerer::OnQuestion(Question question) {
  if (!IsForChallenger(question.request())) {
    Cancel(question, "not a --challenger");
  } else if (source_.ask) {
    AskPerson(std::make_shared<Question>(std::move(question)));
  } else {
    AnswerFromFile(question);
  }
}

bool CredentialsAnswerer::IsForChallenger(const rpc::Authenticate::Request& request) const {
  return source_.challengers.empty() ||
         std::any_of(source_.challengers.begin(), source_.challengers.end(),
                     [&](const Challenger& challenger) { return challenger.Matches(request); });
}

void CredentialsAnswerer::AnswerFromFile(Question& question) {
  const absl::StatusOr<std::string> password = ReadPasswordFile(source_.password_file);
  if (!password.ok()) {
    // The host need not know this machine's files.
    const bool wanted = question.Fail("The client cannot read its password");
    Tell(question, wanted ? "failed" : "withdrawn", "",
         wanted ? std::string(password.status().message()) : "");
    return;
  }
  if (sent_.WasRefused(question.profile_id(), question.request(), *password)) {
    Cancel(question, "this password was refused");
    return;
  }
  if (Send(question, source_.username, *password)) {
    sent_.Remember(question.profile_id(), question.request(), *password);
  }
}

void CredentialsAnswerer::AskPerson(std::shared_ptr<Question> question) {
  const std::string profile = question->profile_id().value();
  const rpc::Authenticate::Request request = question->request();
  const std::string intro =
      absl::StrCat(AskForCredentials(profile, request),
                   request.first_attempt() ? "" : "; others were refused before", "\n");
  Question& asked = *question;  // Belongs to the prompt from here on.
  const auto id = prompt_->Ask(
      {{absl::StrCat(intro, "User name (empty: cancel): "), /*hidden=*/false, /*required=*/true},
       {"Password: ", /*hidden=*/true}},
      [this, question = std::move(question)](std::optional<std::vector<std::string>> answers) {
        if (!answers.has_value()) {
          Cancel(*question, "given up at the terminal");
        } else if (!net::IsUtf8(answers->front()) || !net::IsUtf8(answers->back())) {
          Cancel(*question, "what was typed is no UTF-8");
        } else {
          Send(*question, answers->front(), answers->back());
        }
      });
  asked.OnWithdrawn([this, id, profile, request] {
    prompt_->Withdraw(id);
    output_.Tell(DescribeCredentialsAnswer(profile, request, "withdrawn", "", ""));
  });
}

bool CredentialsAnswerer::Send(Question& question, const std::string& username,
                               const std::string& password) {
  rpc::Authenticate::Response response;
  response.set_username(username);
  response.set_password(password);
  const bool wanted = question.Answer(response);
  Tell(question, wanted ? "sent" : "withdrawn", wanted ? username : "", "");
  return wanted;
}

void CredentialsAnswerer::Cancel(Question& question, const std::string& reason) {
  rpc::Authenticate::Response response;
  response.set_cancel(true);
  if (question.Answer(response)) {
    Tell(question, "cancelled", "", reason);
  } else {
    Tell(question, "withdrawn", "", "");
  }
}

void CredentialsAnswerer::Tell(const Question& question, const std::string& answer,
                               const std::string& username, const std::string& reason) {
  output_.Tell(DescribeCredentialsAnswer(question.profile_id().value(), question.request(), answer,
                                         username, reason));
}

}  // namespace varnic::tools
