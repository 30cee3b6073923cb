#include "tools/file_answerer.h"

#include <optional>
#include <utility>
#include <vector>

#include "absl/strings/ascii.h"
#include "tools/question_text.h"

namespace varnic::tools {
namespace {

bool IsYes(const std::string& answer) {
  const std::string word = absl::AsciiStrToLower(std::string(absl::StripAsciiWhitespace(answer)));
  return word == "y" || word == "yes";
}

}  // namespace

void FileAnswerer::OnQuestion(Question question) {
  const FileVerdict verdict = rules_.Judge(question.request().path());
  if (verdict.decision == FileVerdict::Decision::kAskPerson) {
    AskPerson(std::make_shared<Question>(std::move(question)));
  } else {
    Answer(question, verdict.decision == FileVerdict::Decision::kAllow, verdict.reason);
  }
}

void FileAnswerer::AskPerson(std::shared_ptr<Question> question) {
  const std::string profile = question->profile_id().value();
  const rpc::CanAccessFile::Request request = question->request();
  Question& asked = *question;  // Belongs to the prompt from here on.
  const auto id = prompt_->Ask(
      {{AskAboutFile(profile, request)}},
      [this, question = std::move(question)](std::optional<std::vector<std::string>> answers) {
        Answer(*question, answers.has_value() && IsYes(answers->front()),
               answers.has_value() ? "answered at the terminal" : "given up at the terminal");
      });
  asked.OnWithdrawn([this, id, profile, request] {
    prompt_->Withdraw(id);
    output_.Tell(DescribeFileAnswer(profile, request, "withdrawn", ""));
  });
}

void FileAnswerer::Answer(Question& question, bool allow, const std::string& reason) {
  rpc::CanAccessFile::Response response;
  response.set_allow(allow);
  const std::string profile = question.profile_id().value();
  if (question.Answer(response)) {
    output_.Tell(DescribeFileAnswer(profile, question.request(), allow ? "allow" : "deny", reason));
  } else {
    output_.Tell(DescribeFileAnswer(profile, question.request(), "withdrawn", ""));
  }
}

}  // namespace varnic::tools
