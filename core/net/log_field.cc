#include "core/net/log_field.h"

#include <algorithm>

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

}  // namespace

std::string LogField(std::string_view key, std::string_view value) {
  const bool plain = !value.empty() && std::all_of(value.begin(), value.end(), IsPlain);
  const std::string text(value);
  return absl::StrCat(" ", std::string(key), "=",
                      plain ? text : absl::StrCat("\"", absl::Utf8SafeCHexEscape(text), "\""));
}

}  // namespace varnic::net
