#include "core/host/short_text.h"

#include "absl/strings/escaping.h"
#include "absl/strings/str_cat.h"

namespace varnic::host {
namespace {

constexpr size_t kMaxQuotedBytes = 100;

bool ContinuesCharacter(char byte) {
  return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

}  // namespace

absl::string_view BeginningOf(absl::string_view text, size_t max_bytes) {
  if (text.size() <= max_bytes) return text;
  size_t end = max_bytes;
  while (end > 0 && ContinuesCharacter(text[end])) --end;
  return text.substr(0, end);
}

std::string ShortQuote(absl::string_view text) {
  const absl::string_view start = BeginningOf(text, kMaxQuotedBytes);
  return absl::StrCat("\"", absl::Utf8SafeCHexEscape(start), start.size() < text.size() ? "…" : "",
                      "\"");
}

absl::Status NoSuchProfile(absl::string_view id) {
  return absl::NotFoundError(absl::StrCat("there is no profile ", ShortQuote(id)));
}

}  // namespace varnic::host
