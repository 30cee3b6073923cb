#ifndef TOOLS_PATH_GLOB_H_
#define TOOLS_PATH_GLOB_H_

#include <string>
#include <utility>
#include <vector>

#include "absl/status/statusor.h"

namespace varnic::tools {

// A pattern of absolute paths, which a path matches as a whole:
//
//   ?       one character, but no "/"
//   *       any number of characters, none of them "/"; leading dots are characters like others
//   **/     any number of whole folders, none included, where a name may begin: /a/**/b is /a/b,
//   too
//   **      anywhere else, any number of characters, "/" included: /a/** is all that is in /a, at
//   any
//           depth, but not /a itself
//   [a-z]   one character of the set, or with [!a-z] one that is neither in it nor "/"
//   \       takes the next character as it is
//   /       at the end: the folder and everything in it; / alone is everything
//
// Everything else stands for itself, in its own case. Characters are those of UTF-8.
//
// A value; matching takes time in proportion to both lengths, whatever stands in them.
class PathGlob {
 public:
  // INVALID_ARGUMENT quotes `text`: it has to begin with "/" or "**", sets have to end, no name in
  // it may be empty, "." or "..", and so on.
  static absl::StatusOr<PathGlob> Parse(const std::string& text);

  bool Matches(const std::string& path) const;
  // Whether it matches `path` or a folder above it.
  bool MatchesPathOrFolder(const std::string& path) const;

  // As it was written.
  const std::string& text() const { return text_; }

 private:
  enum class Kind { kCharacter, kAnyCharacter, kSet, kName, kFolders, kAnything };
  struct Token {
    Kind kind;
    char32_t character = 0;                                  // Of kCharacter.
    bool negated = false;                                    // From here on of kSet.
    std::vector<std::pair<char32_t, char32_t>> ranges = {};  // Ends included.

    bool IsSlash() const { return kind == Kind::kCharacter && character == '/'; }
  };
  // Which tokens may be next, and behind the last of them whether all of it has matched.
  using Positions = std::vector<bool>;
  class Parser;

  explicit PathGlob(std::string text) : text_(std::move(text)) {}
  void Enter(std::size_t position, Positions& positions) const;
  void Step(std::size_t position, char32_t character, Positions& next) const;
  static bool Accepts(const Token& token, char32_t character);
  bool Run(const std::string& path, bool or_folder) const;
  void TakeSlashFromEnd();

  std::string text_;
  std::vector<Token> tokens_;  // Without the slash at the end.
  bool whole_folder_ = false;  // There was one.
};

}  // namespace varnic::tools

#endif  // TOOLS_PATH_GLOB_H_
