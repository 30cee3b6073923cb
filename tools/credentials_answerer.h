#ifndef TOOLS_CREDENTIALS_ANSWERER_H_
#define TOOLS_CREDENTIALS_ANSWERER_H_

#include <memory>
#include <string>
#include <vector>

#include "core/client/callback_answerer.h"
#include "rpc/profile/profile.pb.h"
#include "tools/challenger.h"
#include "tools/stream_output.h"
#include "tools/terminal_prompt.h"

namespace varnic::tools {

// Where credentials come from, and who may have them.
struct CredentialsSource {
  // Unless a person is asked.
  std::string username;
  std::string password_file;
  // Who else asks is cancelled; with none, everybody may have them.
  std::vector<Challenger> challengers;
  bool ask = false;
};

// Answers the host's questions for credentials from a file, or asks a person; tells what became of
// each. A password that was refused is not sent to the same server or proxy again: the question is
// cancelled, until the file has another one. Lives on the client's loop.
class CredentialsAnswerer {
 public:
  using Question = CallbackQuestion<rpc::Authenticate>;

  // Everything must outlive it. `prompt` is null if nobody is to be asked, as `source` says.
  CredentialsAnswerer(const CredentialsSource& source, StreamOutput& output, TerminalPrompt* prompt)
      : source_(source), output_(output), prompt_(prompt) {}

  void OnQuestion(Question question);

 private:
  bool IsForChallenger(const rpc::Authenticate::Request& request) const;
  void AnswerFromFile(Question& question);
  void AskPerson(std::shared_ptr<Question> question);
  // Whether it was still wanted.
  bool Send(Question& question, const std::string& username, const std::string& password);
  void Cancel(Question& question, const std::string& reason);
  void Tell(const Question& question, const std::string& answer, const std::string& username,
            const std::string& reason);

  const CredentialsSource& source_;
  StreamOutput& output_;
  TerminalPrompt* const prompt_;
  SentPasswords sent_;
};

}  // namespace varnic::tools

#endif  // TOOLS_CREDENTIALS_ANSWERER_H_
