#ifndef TOOLS_FILE_ANSWERER_H_
#define TOOLS_FILE_ANSWERER_H_

#include <memory>
#include <string>

#include "core/client/callback_answerer.h"
#include "rpc/profile/profile.pb.h"
#include "tools/file_rules.h"
#include "tools/stream_output.h"
#include "tools/terminal_prompt.h"

namespace varnic::tools {

// Answers the host's questions about files by rules, or asks a person; tells what became of each.
// Lives on the client's loop.
class FileAnswerer {
 public:
  using Question = CallbackQuestion<rpc::CanAccessFile>;

  // Everything must outlive it. `prompt` is null if nobody is to be asked, as `rules` say.
  FileAnswerer(const FileRules& rules, StreamOutput& output, TerminalPrompt* prompt)
      : rules_(rules), output_(output), prompt_(prompt) {}

  void OnQuestion(Question question);

 private:
  void AskPerson(std::shared_ptr<Question> question);
  void Answer(Question& question, bool allow, const std::string& reason);

  const FileRules& rules_;
  StreamOutput& output_;
  TerminalPrompt* const prompt_;
};

}  // namespace varnic::tools

#endif  // TOOLS_FILE_ANSWERER_H_
