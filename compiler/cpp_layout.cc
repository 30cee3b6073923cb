#include "compiler/cpp_layout.h"

#include <cstddef>

#include "absl/strings/ascii.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_split.h"
#include "absl/strings/string_view.h"

namespace varnic::compiler {
namespace {

constexpr std::size_t kColumns = 100;
constexpr int kContinuation = 4;

// Fills lines with arguments, each behind `margin`; `used` columns of the first line are taken.
// False if one of them is too wide.
bool Fill(std::size_t margin, std::size_t used, const std::vector<std::string>& arguments,
          const std::string& tail, std::string& text) {
  bool fits = true;
  std::size_t column = used;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const bool last = i + 1 == arguments.size();
    const std::string piece = absl::StrCat(arguments[i], last ? tail : ",");
    if (i > 0 && column + 1 + piece.size() <= kColumns) {
      absl::StrAppend(&text, " ", piece);
      column += 1 + piece.size();
    } else {
      if (i > 0) absl::StrAppend(&text, "\n", std::string(margin, ' '));
      column = (i > 0 ? margin : used) + piece.size();
      text += piece;
      fits = fits && column <= kColumns;
    }
  }
  return fits;
}

}  // namespace

std::string LayOutCall(int indent, const std::string& head,
                       const std::vector<std::string>& arguments, const std::string& tail) {
  const std::string opening = absl::StrCat(std::string(indent, ' '), head, "(");
  const std::string closing = absl::StrCat(")", tail);
  std::string text = opening;
  if (arguments.empty()) return absl::StrCat(opening, closing, "\n");
  if (!Fill(opening.size(), opening.size(), arguments, closing, text)) {
    const std::size_t margin = indent + kContinuation;
    text = absl::StrCat(opening, "\n", std::string(margin, ' '));
    Fill(margin, margin, arguments, closing, text);
  }
  return absl::StrCat(text, "\n");
}

std::string LayOutDeclaration(const std::string& type, const std::string& name) {
  const bool fits = type.size() + 1 + name.size() <= kColumns;
  return absl::StrCat(type, fits ? " " : "\n    ", name, "\n");
}

std::string LayOutComment(const std::string& text) {
  std::string comment;
  std::string line = "//";
  for (const absl::string_view word : absl::StrSplit(text, ' ')) {
    if (line.size() + 1 + word.size() > kColumns) {
      absl::StrAppend(&comment, line, "\n");
      line = "//";
    }
    absl::StrAppend(&line, " ", word);
  }
  return absl::StrCat(comment, line, "\n");
}

std::string IncludeGuard(const std::string& path) {
  std::string guard;
  for (const char c : path) guard += absl::ascii_isalnum(c) ? absl::ascii_toupper(c) : '_';
  return guard + "_";
}

std::string MangledPath(const std::string& path) {
  std::string mangled;
  for (const char c : path) {
    if (absl::ascii_isalnum(c)) {
      mangled += c;
    } else {
      absl::StrAppend(&mangled, "_", absl::Hex(static_cast<unsigned char>(c)));
    }
  }
  return mangled;
}

}  // namespace varnic::compiler
