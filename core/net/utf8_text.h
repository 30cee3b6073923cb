#ifndef CORE_NET_UTF8_TEXT_H_
#define CORE_NET_UTF8_TEXT_H_

#include <string>
#include <string_view>

// Text in UTF-8 (RFC 3629), which is all that fields of type string may hold on the wire. Any
// thread.
namespace varnic::net {

bool IsUtf8(std::string_view text);

// `text` with each byte that is no UTF-8 escaped as in C: "\xff".
std::string EscapeInvalidUtf8(std::string_view text);

}  // namespace varnic::net

#endif  // CORE_NET_UTF8_TEXT_H_
