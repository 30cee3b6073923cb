#include "tools/file_rules.h"

#include <climits>
#include <utility>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_split.h"

namespace varnic::tools {
namespace {

using Decision = FileVerdict::Decision;

absl::Status ParseGlobs(const char* option, const std::vector<std::string>& texts,
                        std::vector<PathGlob>& globs) {
  for (const std::string& text : texts) {
    absl::StatusOr<PathGlob> glob = PathGlob::Parse(text);
    if (!glob.ok()) {
      return absl::InvalidArgumentError(absl::StrCat(option, ": ", glob.status().message()));
    }
    globs.push_back(*std::move(glob));
  }
  return absl::OkStatus();
}

// The system would take such a path for another one, which a glob could not know.
bool IsPlain(const std::string& path) {
  if (path.empty() || path[0] != '/') return false;
  if (path.size() > PATH_MAX || path.find('\0') != std::string::npos) return false;
  if (path == "/") return true;
  const std::vector<std::string> names = absl::StrSplit(path.substr(1), '/');
  for (const std::string& name : names) {
    if (name.empty() || name == "." || name == "..") return false;
  }
  return true;
}

}  // namespace

absl::StatusOr<FileRules> FileRules::Make(const std::vector<std::string>& allow,
                                          const std::vector<std::string>& deny, bool ask) {
  FileRules rules;
  rules.ask_ = ask;
  if (absl::Status status = ParseGlobs("--allow", allow, rules.allow_); !status.ok()) return status;
  if (absl::Status status = ParseGlobs("--deny", deny, rules.deny_); !status.ok()) return status;
  return rules;
}

FileVerdict FileRules::Judge(const std::string& path) const {
  const bool ends_in_slash = path.size() > 2 && path.back() == '/';
  const std::string file = ends_in_slash ? path.substr(0, path.size() - 1) : path;
  if (!IsPlain(file)) return {Decision::kDeny, "not a plain absolute path"};
  for (const PathGlob& glob : deny_) {
    if (glob.MatchesPathOrFolder(file)) {
      return {Decision::kDeny, absl::StrCat("--deny ", glob.text())};
    }
  }
  for (const PathGlob& glob : allow_) {
    if (glob.Matches(file)) return {Decision::kAllow, absl::StrCat("--allow ", glob.text())};
  }
  return {ask_ ? Decision::kAskPerson : Decision::kDeny, "no rule matches"};
}

}  // namespace varnic::tools
