#include "core/net/log_field.h"

#include <algorithm>
#include <cstddef>

#include "absl/strings/ascii.h"
#include "absl/strings/escaping.h"
#include "absl/strings/str_cat.h"

namespace varnic::net {
namespace {

bool IsPlain(char c) {
  constexpr std::string_view kPunctuation = "_-./:@+%~[],*";
  return absl::ascii_isalnum(static_cast<unsigned char>(c)) ||
         kPunctuation.find(c) != std::string_view::npos;
}

// Of a character in UTF-8, but not its first byte.
bool IsTrailing(char c) {
  return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

// The beginning of a text, to the end of a character.
std::string Beginning(std::string_view text, std::size_t bytes) {
  if (bytes >= text.size()) return std::string(text);
  std::size_t end = bytes;
  for (int i = 0; i < 3 && end > 0 && IsTrailing(text[end]); ++i) --end;
  return std::string(text.substr(0, IsTrailing(text[end]) ? bytes : end));
}

// No more of it than a field holds.
std::string Escape(std::string_view text) {
  std::size_t bytes = std::min(text.size(), kMaxLogFieldBytes);
  while (true) {
    const std::string beginning = Beginning(text, bytes);
    const std::string escaped = absl::Utf8SafeCHexEscape(beginning);
    const char* more = beginning.size() < text.size() ? "..." : "";
    if (escaped.size() <= kMaxLogFieldBytes) return absl::StrCat(escaped, more);
    // No byte is escaped by more than four.
    bytes -= (escaped.size() - kMaxLogFieldBytes + 3) / 4;
  }
}

}  // namespace

std::string LogField(std::string_view key, std::string_view value) {
  const bool plain = !value.empty() && std::all_of(value.begin(), value.end(), IsPlain);
  const std::string text = Escape(value);
  return absl::StrCat(" ", std::string(key), "=", plain ? text : absl::StrCat("\"", text, "\""));
}

}  // namespace varnic::net
