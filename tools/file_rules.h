#ifndef TOOLS_FILE_RULES_H_
#define TOOLS_FILE_RULES_H_

#include <string>
#include <vector>

#include "absl/status/statusor.h"
#include "tools/path_glob.h"

namespace varnic::tools {

// What to say to a question about a file, and why: "--deny /etc/**".
struct FileVerdict {
  enum class Decision { kAllow, kDeny, kAskPerson };
  Decision decision;
  std::string reason;
};

// Which files may be accessed. In this order:
//
//  1. A path that is not plain is denied: relative, longer than 4096 bytes, with a NUL, or with an
//     empty, "." or ".." component. A slash at its end does not count.
//  2. A path that a --deny glob matches is denied, and so is everything in a folder that one
//  matches.
//  3. A path that an --allow glob matches is allowed: itself, and what is in it only if the glob
//  ends in a slash.
//  4. Of any other path, a person is asked, or it is denied.
//
// Only the path is looked at: symbolic links stand for themselves, and reading, writing and listing
// are one.
class FileRules {
 public:
  // INVALID_ARGUMENT names the option and quotes the glob.
  static absl::StatusOr<FileRules> Make(const std::vector<std::string>& allow,
                                        const std::vector<std::string>& deny, bool ask);

  FileVerdict Judge(const std::string& path) const;

 private:
  FileRules() = default;

  std::vector<PathGlob> allow_;
  std::vector<PathGlob> deny_;
  bool ask_ = false;
};

}  // namespace varnic::tools

#endif  // TOOLS_FILE_RULES_H_
