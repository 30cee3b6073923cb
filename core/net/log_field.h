#ifndef CORE_NET_LOG_FIELD_H_
#define CORE_NET_LOG_FIELD_H_

#include <cstddef>
#include <string>
#include <string_view>

namespace varnic::net {

// What a field has of its value, as it is escaped.
constexpr std::size_t kMaxLogFieldBytes = 256;

// One datum of a log record, with the blank before it: ` path=/run/host.sock`, ` reason="no
// space"`. A value of anything but letters, digits and plain punctuation stands in quotes, where
// quotes, backslashes and control bytes are escaped: no text of a peer's passes for another datum,
// or crowds out those behind it. A longer value is cut, and ends in "...".
std::string LogField(std::string_view key, std::string_view value);

}  // namespace varnic::net

#endif  // CORE_NET_LOG_FIELD_H_
