#include "tools/path_glob.h"

#include <unicode/utf8.h>

#include <algorithm>
#include <cstdint>
#include <optional>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "tools/safe_text.h"

namespace varnic::tools {
namespace {

// None if `text` is no UTF-8.
std::optional<std::u32string> Characters(const std::string& text) {
  std::u32string characters;
  const auto size = static_cast<int32_t>(text.size());
  for (int32_t next = 0; next < size;) {
    UChar32 character = 0;
    U8_NEXT(text.data(), next, size, character);
    if (character < 0) return std::nullopt;
    characters.push_back(static_cast<char32_t>(character));
  }
  return characters;
}

}  // namespace

class PathGlob::Parser {
 public:
  Parser(std::u32string text, std::vector<Token>& tokens)
      : text_(std::move(text)), tokens_(tokens) {}

  // What is wrong with the text; empty if nothing is.
  std::string Parse() {
    if (text_.empty() || (text_[0] != '/' && text_.compare(0, 2, U"**") != 0)) {
      return "it has to begin with / or **";
    }
    while (next_ < text_.size()) {
      std::string problem = ParseToken(text_[next_++]);
      if (!problem.empty()) return problem;
    }
    return CheckNames();
  }

 private:
  std::string ParseToken(char32_t character) {
    switch (character) {
      case '?':
        tokens_.push_back({Kind::kAnyCharacter});
        return "";
      case '*':
        ParseStars();
        return "";
      case '[':
        return ParseSet();
      default:
        return ParseCharacter(character);
    }
  }

  std::string ParseCharacter(char32_t character) {
    if (character == '\\') {
      if (next_ == text_.size()) return "nothing follows its last backslash";
      character = text_[next_++];
    }
    tokens_.push_back({Kind::kCharacter, character});
    return "";
  }

  void ParseStars() {
    const std::size_t begin = next_ - 1;
    while (next_ < text_.size() && text_[next_] == '*') ++next_;
    if (next_ - begin == 1) {
      tokens_.push_back({Kind::kName});
      return;
    }
    const bool name_begins = begin == 0 || text_[begin - 1] == '/';
    const bool folders = name_begins && next_ < text_.size() && text_[next_] == '/';
    if (folders) ++next_;
    tokens_.push_back({folders ? Kind::kFolders : Kind::kAnything});
  }

  std::string ParseSet() {
    Token token = {Kind::kSet};
    if (next_ < text_.size() && (text_[next_] == '!' || text_[next_] == '^')) {
      token.negated = true;
      ++next_;
    }
    // A bracket that comes first is a member of the set.
    for (bool first = true; first || Peek() != U']'; first = false) {
      const std::optional<char32_t> low = SetMember();
      std::optional<char32_t> high = low;
      if (Peek() == U'-' && next_ + 1 < text_.size() && text_[next_ + 1] != ']') {
        ++next_;
        high = SetMember();
      }
      if (!low || !high) return "a [ in it has no ]";
      if (*low > *high) return "a range in it runs backwards";
      token.ranges.emplace_back(*low, *high);
    }
    ++next_;
    tokens_.push_back(std::move(token));
    return "";
  }

  // No plain path has such names, so that the glob would match nothing.
  std::string CheckNames() const {
    std::u32string name;
    for (std::size_t i = 0; i < tokens_.size(); ++i) {
      const Token& token = tokens_[i];
      const bool name_ends = token.kind == Kind::kFolders || token.IsSlash();
      if (token.IsSlash() && name.empty() && i > 0) return "it has an empty name: //";
      if (name_ends && IsDots(name)) return kDots;
      if (name_ends) {
        name.clear();
      } else {
        name += token.kind == Kind::kCharacter ? token.character : U'*';
      }
    }
    return IsDots(name) ? kDots : "";
  }

  static bool IsDots(const std::u32string& name) { return name == U"." || name == U".."; }

  // The next character; one that is in no set at the end of the text.
  char32_t Peek() const { return next_ < text_.size() ? text_[next_] : U'\0'; }

  std::optional<char32_t> SetMember() {
    if (Peek() == U'\\') ++next_;
    if (next_ >= text_.size()) return std::nullopt;
    return text_[next_++];
  }

  static constexpr char kDots[] = "it has a name that is . or ..";

  const std::u32string text_;
  std::vector<Token>& tokens_;
  std::size_t next_ = 0;
};

absl::StatusOr<PathGlob> PathGlob::Parse(const std::string& text) {
  PathGlob glob(text);
  std::optional<std::u32string> characters = Characters(text);
  const std::string problem = characters.has_value()
                                  ? Parser(*std::move(characters), glob.tokens_).Parse()
                                  : "it is no UTF-8";
  if (!problem.empty()) {
    return absl::InvalidArgumentError(absl::StrCat("glob ", SafeWord(text), ": ", problem));
  }
  glob.TakeSlashFromEnd();
  return glob;
}

void PathGlob::TakeSlashFromEnd() {
  while (!tokens_.empty() && (tokens_.back().kind == Kind::kFolders || tokens_.back().IsSlash())) {
    tokens_.pop_back();
    whole_folder_ = true;
  }
}

bool PathGlob::Matches(const std::string& path) const {
  return Run(path, /*or_folder=*/whole_folder_);
}

bool PathGlob::MatchesPathOrFolder(const std::string& path) const {
  return Run(path, /*or_folder=*/true);
}

// Follows all ways to match at once, so that no path makes it go back and try again.
bool PathGlob::Run(const std::string& path, bool or_folder) const {
  const std::optional<std::u32string> characters = Characters(path);
  if (!characters) return false;
  Positions positions(tokens_.size() + 1);
  Enter(0, positions);
  for (const char32_t character : *characters) {
    if (or_folder && character == '/' && positions.back()) return true;
    Positions next(positions.size());
    for (std::size_t i = 0; i < tokens_.size(); ++i) {
      if (positions[i]) Step(i, character, next);
    }
    positions = std::move(next);
  }
  return positions.back();
}

// What may match nothing at all may be passed at once.
void PathGlob::Enter(std::size_t position, Positions& positions) const {
  positions[position] = true;
  while (position < tokens_.size() && tokens_[position].kind >= Kind::kName) {
    positions[++position] = true;
  }
}

void PathGlob::Step(std::size_t position, char32_t character, Positions& next) const {
  const Token& token = tokens_[position];
  switch (token.kind) {
    case Kind::kFolders:
      next[position] = true;
      if (character == '/') Enter(position + 1, next);
      break;
    case Kind::kName:
      if (character != '/') Enter(position, next);
      break;
    case Kind::kAnything:
      Enter(position, next);
      break;
    default:
      if (Accepts(token, character)) Enter(position + 1, next);
  }
}

bool PathGlob::Accepts(const Token& token, char32_t character) {
  if (token.kind == Kind::kCharacter) return character == token.character;
  if (character == '/') return false;
  if (token.kind == Kind::kAnyCharacter) return true;
  const bool in_set =
      std::any_of(token.ranges.begin(), token.ranges.end(), [character](const auto& range) {
        return range.first <= character && character <= range.second;
      });
  return in_set != token.negated;
}

}  // namespace varnic::tools
