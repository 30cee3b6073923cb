#include "tools/accounts.h"

#include <grp.h>
#include <pwd.h>

#include <charconv>
#include <limits>
#include <optional>
#include <system_error>

#include "absl/strings/str_cat.h"

namespace varnic::tools {
namespace {

// The largest number means "nobody at all" to the system.
std::optional<id_t> ParseId(const std::string& text) {
  id_t id = 0;
  const char* end = text.data() + text.size();
  const std::from_chars_result result = std::from_chars(text.data(), end, id);
  if (result.ec != std::errc() || result.ptr != end || id == std::numeric_limits<id_t>::max()) {
    return std::nullopt;
  }
  return id;
}

}  // namespace

absl::StatusOr<uid_t> FindUser(const std::string& text) {
  if (const std::optional<id_t> id = ParseId(text)) return *id;
  const passwd* account = getpwnam(text.c_str());
  if (account == nullptr) return absl::NotFoundError(absl::StrCat("there is no user ", text));
  return account->pw_uid;
}

absl::StatusOr<gid_t> FindGroup(const std::string& text) {
  if (const std::optional<id_t> id = ParseId(text)) return *id;
  const group* account = getgrnam(text.c_str());
  if (account == nullptr) return absl::NotFoundError(absl::StrCat("there is no group ", text));
  return account->gr_gid;
}

}  // namespace varnic::tools
