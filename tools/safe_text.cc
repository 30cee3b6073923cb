#include "tools/safe_text.h"

#include <unicode/uchar.h>
#include <unicode/utf8.h>

#include <cstdint>

#include "absl/functional/function_ref.h"
#include "absl/strings/escaping.h"
#include "absl/strings/str_cat.h"

namespace varnic::tools {
namespace {

// One character, and the bytes that it stands in; negative for bytes that are no UTF-8.
using OnCharacter = absl::FunctionRef<void(UChar32 character, const std::string& bytes)>;

void ForEachCharacter(const std::string& text, OnCharacter on_character) {
  const auto size = static_cast<int32_t>(text.size());
  for (int32_t end = 0; end < size;) {
    const int32_t begin = end;
    UChar32 character = 0;
    U8_NEXT(text.data(), end, size, character);
    on_character(character, text.substr(static_cast<std::size_t>(begin),
                                        static_cast<std::size_t>(end - begin)));
  }
}

// Printable, as Unicode has it, but nothing is to be seen of it.
bool IsBlank(UChar32 character) {
  switch (character) {
    case 0x2800:   // A pattern of Braille without a dot.
    case 0x1D159:  // A note without a head.
    case 0x13441:  // Hieroglyphs that are blanks.
    case 0x13442:
      return true;
    default:
      return (u_isUWhiteSpace(character) != 0 && character != ' ') ||
             u_hasBinaryProperty(character, UCHAR_DEFAULT_IGNORABLE_CODE_POINT) != 0;
  }
}

// u_isprint() leaves out the characters that turn the direction of writing, too.
bool IsPrintable(UChar32 character) {
  return character >= 0 && u_isprint(character) != 0 && !IsBlank(character);
}

// In quotes, whatever it is.
std::string Quote(const std::string& text) {
  std::string escaped;
  ForEachCharacter(text, [&](UChar32 character, const std::string& bytes) {
    const bool needs_escape = !IsPrintable(character) || character == '"' || character == '\\';
    absl::StrAppend(&escaped, needs_escape ? absl::CHexEscape(bytes) : bytes);
  });
  return absl::StrCat("\"", escaped, "\"");
}

// Where the character begins in which `byte` is.
std::size_t CharacterStart(const std::string& text, std::size_t byte) {
  for (std::size_t back = 0; back < 4 && back <= byte; ++back) {
    if (!U8_IS_TRAIL(text[byte - back])) return byte - back;
  }
  return byte;
}

}  // namespace

std::string EscapeUnprintable(const std::string& text) {
  std::string escaped;
  ForEachCharacter(text, [&](UChar32 character, const std::string& bytes) {
    absl::StrAppend(&escaped, IsPrintable(character) ? bytes : absl::CHexEscape(bytes));
  });
  return escaped;
}

std::string SafeWord(const std::string& text) {
  bool plain = !text.empty();
  ForEachCharacter(text, [&](UChar32 character, const std::string& /*bytes*/) {
    plain = plain && IsPrintable(character) && character != ' ' && character != '"' &&
            character != '\\';
  });
  return plain ? text : Quote(text);
}

std::string ShortWord(const std::string& text, std::size_t max_bytes) {
  if (text.size() <= max_bytes) return SafeWord(text);
  const std::size_t begin = CharacterStart(text, max_bytes * 2 / 3);
  const std::size_t end = CharacterStart(text, text.size() - max_bytes / 3);
  return absl::StrCat(Quote(text.substr(0, begin)), "...", Quote(text.substr(end)), " (",
                      text.size(), " bytes)");
}

}  // namespace varnic::tools
