#include "core/net/percent_encoding.h"

#include <algorithm>
#include <cstddef>

namespace varnic::net {
namespace {

constexpr char kHexDigits[] = "0123456789ABCDEF";

bool IsPlain(char c) {
  return c >= 0x20 && c <= 0x7E && c != '%';
}

bool IsPlain(std::string_view text) {
  if (text.empty()) return true;
  if (text.front() == ' ' || text.back() == ' ') return false;
  return std::all_of(text.begin(), text.end(), [](char c) { return IsPlain(c); });
}

// The value of a hexadecimal digit, or -1.
int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

void AppendEscaped(char c, std::string& out) {
  const auto byte = static_cast<unsigned char>(c);
  const char escape[] = {'%', kHexDigits[byte >> 4], kHexDigits[byte & 0xF]};
  out.append(escape, sizeof(escape));
}

}  // namespace

std::string PercentEncode(std::string_view text) {
  if (IsPlain(text)) return std::string(text);
  std::string encoded;
  encoded.reserve(text.size() * 3);
  for (size_t i = 0; i < text.size(); ++i) {
    const bool at_an_end = i == 0 || i + 1 == text.size();
    if (IsPlain(text[i]) && !(at_an_end && text[i] == ' ')) {
      encoded.push_back(text[i]);
    } else {
      AppendEscaped(text[i], encoded);
    }
  }
  return encoded;
}

std::string PercentDecode(std::string_view text) {
  size_t escape = text.find('%');
  if (escape == std::string_view::npos) return std::string(text);
  std::string decoded;
  decoded.reserve(text.size());
  for (; escape != std::string_view::npos; escape = text.find('%')) {
    decoded.append(text.substr(0, escape));
    text.remove_prefix(escape);
    const int high = text.size() < 3 ? -1 : HexValue(text[1]);
    const int low = text.size() < 3 ? -1 : HexValue(text[2]);
    const bool valid = high >= 0 && low >= 0;
    decoded.push_back(valid ? static_cast<char>(high << 4 | low) : '%');
    text.remove_prefix(valid ? 3 : 1);
  }
  decoded.append(text);
  return decoded;
}

}  // namespace varnic::net
