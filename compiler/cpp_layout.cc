#include "compiler/cpp_layout.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "absl/strings/ascii.h"
#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_split.h"
#include "absl/strings/string_view.h"

namespace varnic::compiler {
namespace {

constexpr std::size_t kColumns = 100;
constexpr int kContinuation = 4;

// What clang-format counts a line break as, by its place; it takes what costs least.
struct Penalties {
  int before_first;  // Behind the opening parenthesis.
  int between;       // Behind a comma.
};
constexpr Penalties kFunction{140, 41};
constexpr Penalties kCall{41, 41};
constexpr int kBehindResult = 220;
constexpr int kBehindType = 240;
constexpr int kInTemplate = 320;
constexpr int kInTemplateOfType = 340;
constexpr int kInCast = 79;
constexpr std::int64_t kExcessColumn = 1000000;

// A way to write something, and what it costs.
struct Written {
  std::string text;
  std::int64_t penalty = 0;
};

bool IsCheaper(const Written& a, const Written& b) {
  return a.penalty < b.penalty;
}

std::string Spaces(std::size_t count) {
  return std::string(count, ' ');
}

std::size_t Column(const std::string& text) {
  return text.size() - (text.rfind('\n') + 1);
}

void Append(const std::string& piece, Written& written) {
  written.text += piece;
  const std::size_t column = Column(written.text);
  if (column <= kColumns) return;
  written.penalty += kExcessColumn * static_cast<std::int64_t>(column - kColumns);
}

void Break(std::size_t margin, int penalty, Written& written) {
  absl::StrAppend(&written.text, "\n", Spaces(margin));
  written.penalty += penalty;
}

// A parameter that is too wide stands on two lines: what is behind the first `head_size` columns
// goes to the second.
Written Split(Written written, const std::string& piece, std::size_t head_size, std::size_t margin,
              int penalty) {
  Append(piece.substr(0, head_size), written);
  Break(margin + kContinuation, penalty, written);
  const bool space = head_size < piece.size() && piece[head_size] == ' ';
  Append(piece.substr(head_size + (space ? 1 : 0)), written);
  return written;
}

bool IsCast(const std::string& type) {
  return absl::EndsWith(type, "(");
}

Written AppendPiece(const Written& written, const std::string& type, const std::string& piece,
                    std::size_t margin) {
  Written whole = written;
  Append(piece, whole);
  if (type.empty()) return whole;
  std::vector<Written> ways = {
      whole, Split(written, piece, type.size(), margin, IsCast(type) ? kInCast : kBehindType)};
  const std::size_t opening = type.find('<');
  if (!IsCast(type) && opening != std::string::npos) {
    ways.push_back(Split(written, piece, opening + 1, margin, kInTemplateOfType));
  }
  return *std::min_element(ways.begin(), ways.end(), IsCheaper);
}

// Fills lines that begin at `margin`; one that stands on two lines shares none. An argument is a
// parameter without a type.
Written Fill(Written written, std::size_t margin, const std::vector<Parameter>& parameters,
             const std::string& tail, const Penalties& penalties) {
  bool was_split = false;
  for (std::size_t i = 0; i < parameters.size(); ++i) {
    const auto& [type, name] = parameters[i];
    const std::string piece = absl::StrCat(type, type.empty() || IsCast(type) ? "" : " ", name,
                                           i + 1 == parameters.size() ? tail : ",");
    if (i > 0 && !was_split && Column(written.text) + 1 + piece.size() <= kColumns) {
      written.text += ' ';
    } else if (i > 0) {
      Break(margin, penalties.between, written);
    }
    const std::size_t begin = written.text.size();
    written = AppendPiece(written, type, piece, margin);
    was_split = written.text.find('\n', begin) != std::string::npos;
  }
  return written;
}

// `head` up to the opening parenthesis; the parameters behind it, or indented on lines of their
// own.
Written LayOut(const Written& head, int indent, const std::vector<Parameter>& parameters,
               const std::string& tail, const Penalties& penalties) {
  const std::string closing = absl::StrCat(")", tail);
  Written behind = head;
  if (parameters.empty()) {
    Append(closing, behind);
    return behind;
  }
  const std::size_t margin = indent + kContinuation;
  Written below = head;
  Break(margin, penalties.before_first, below);
  below = Fill(below, margin, parameters, closing, penalties);
  behind = Fill(head, Column(head.text), parameters, closing, penalties);
  return std::min(behind, below, IsCheaper);
}

// With the first of the `heads` that costs least.
std::string Cheapest(const std::vector<Written>& heads, int indent,
                     const std::vector<Parameter>& parameters, const std::string& tail,
                     const Penalties& penalties) {
  std::vector<Written> ways;
  for (const Written& head : heads) {
    ways.push_back(LayOut(head, indent, parameters, tail, penalties));
  }
  return absl::StrCat(std::min_element(ways.begin(), ways.end(), IsCheaper)->text, "\n");
}

// Arguments have no types; what a cast begins with is broken like one.
std::vector<Parameter> Untyped(const std::vector<std::string>& arguments) {
  std::vector<Parameter> parameters;
  for (const std::string& argument : arguments) {
    const bool cast = absl::StartsWith(argument, "static_cast<");
    const std::size_t head = cast ? argument.find('(') + 1 : 0;
    parameters.push_back({argument.substr(0, head), argument.substr(head)});
  }
  return parameters;
}

Written OnOneLine(const std::string& text) {
  Written written;
  Append(text, written);
  return written;
}

// Breaks a line that is too long in the outermost template of whose rest the next line has room.
Written InTemplate(int indent, const std::string& text) {
  const std::size_t margin = indent + kContinuation;
  std::size_t rest = 0;
  do {
    rest = text.find('<', rest) + 1;
  } while (rest > 0 && margin + text.size() - rest > kColumns);
  if (rest == 0 || text.size() <= kColumns) return OnOneLine(text);
  Written written = OnOneLine(text.substr(0, rest));
  Break(margin, kInTemplate, written);
  Append(text.substr(rest), written);
  return written;
}

// Small letters, digits and slashes, before the two dots that end every generated header's path.
bool IsPlain(const std::string& path) {
  const auto is_plain = [](char c) {
    return absl::ascii_islower(c) || absl::ascii_isdigit(c) || c == '/' || c == '.';
  };
  return !path.empty() && absl::ascii_islower(path[0]) &&
         std::all_of(path.begin(), path.end(), is_plain) &&
         std::count(path.begin(), path.end(), '.') == 2;
}

}  // namespace

std::string LayOutFunction(int indent, const std::string& result, const std::string& name,
                           const std::vector<Parameter>& parameters, const std::string& tail) {
  const std::string opening = absl::StrCat(name, "(");
  const std::string first_line = absl::StrCat(Spaces(indent), result);
  Written below_result = InTemplate(indent, first_line);
  Break(indent, kBehindResult, below_result);
  Append(opening, below_result);
  const Written behind_result = OnOneLine(absl::StrCat(first_line, " ", opening));
  return Cheapest({behind_result, below_result}, indent, parameters, tail, kFunction);
}

std::string LayOutCall(int indent, const std::string& function,
                       const std::vector<std::string>& arguments, const std::string& tail) {
  const Written head = OnOneLine(absl::StrCat(Spaces(indent), function, "("));
  return Cheapest({head}, indent, Untyped(arguments), tail, kCall);
}

std::string LayOutTemplateCall(int indent, const std::string& function, const std::string& type,
                               const std::vector<std::string>& arguments, const std::string& tail) {
  const std::string head = absl::StrCat(Spaces(indent), function, "<", type, ">(");
  return Cheapest({OnOneLine(head), InTemplate(indent, head)}, indent, Untyped(arguments), tail,
                  kCall);
}

std::string LayOutDeclaration(const std::string& type, const std::string& name) {
  const bool fits = type.size() + 1 + name.size() <= kColumns;
  return absl::StrCat(type, fits ? " " : "\n    ", name, "\n");
}

std::string LayOutReturn(int indent, const std::string& type, const std::string& member) {
  const std::string head = absl::StrCat(Spaces(indent), "return ", type, "::");
  const bool fits = head.size() + member.size() + 1 <= kColumns;
  const std::string between = fits ? "" : absl::StrCat("\n", Spaces(indent + kContinuation));
  return absl::StrCat(head, between, member, ";\n");
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
  if (!IsPlain(path)) return absl::StrCat("VARNIC_INCLUDED_", MangledPath(path), "_");
  std::string guard = absl::AsciiStrToUpper(path);
  std::replace_if(
      guard.begin(), guard.end(), [](char c) { return !absl::ascii_isalnum(c); }, '_');
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
