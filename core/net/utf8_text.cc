#include "core/net/utf8_text.h"

#include <cstddef>

#include "absl/strings/escaping.h"

namespace varnic::net {
namespace {

// How many bytes the sequence at the beginning of `text` has (RFC 3629, section 4); 0 if it is
// none.
std::size_t SequenceSize(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char first = byte(0);
  if (first < 0x80) return 1;
  const std::size_t size = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  if (first < 0xc2 || first > 0xf4 || text.size() < size) return 0;
  for (std::size_t i = 1; i < size; ++i) {
    if ((byte(i) & 0xc0) != 0x80) return 0;
  }
  const bool overlong = (first == 0xe0 && byte(1) < 0xa0) || (first == 0xf0 && byte(1) < 0x90);
  const bool no_character = (first == 0xed && byte(1) > 0x9f) || (first == 0xf4 && byte(1) > 0x8f);
  return overlong || no_character ? 0 : size;
}

}  // namespace

bool IsUtf8(std::string_view text) {
  while (!text.empty()) {
    const std::size_t size = SequenceSize(text);
    if (size == 0) return false;
    text.remove_prefix(size);
  }
  return true;
}

std::string EscapeInvalidUtf8(std::string_view text) {
  std::string valid;
  while (!text.empty()) {
    const std::size_t size = SequenceSize(text);
    if (size > 0) {
      valid.append(text.substr(0, size));
    } else {
      valid += absl::CHexEscape(std::string(text.substr(0, 1)));
    }
    text.remove_prefix(size > 0 ? size : 1);
  }
  return valid;
}

}  // namespace varnic::net
