#ifndef CORE_NET_GRPC_TIMEOUT_H_
#define CORE_NET_GRPC_TIMEOUT_H_

#include <optional>
#include <string>
#include <string_view>

#include "absl/time/time.h"

namespace varnic::net {

// The value of the grpc-timeout header (gRPC's PROTOCOL-HTTP2, "Timeout"): 1 to 8 digits and one of
// the units H M S m u n. Anything else is nullopt. A value of 0, which the grammar leaves out but
// some clients send, is an expired timeout.
std::optional<absl::Duration> ParseGrpcTimeout(std::string_view value);

// Writes `timeout` in the finest unit in which it fits 8 digits, rounded up, so that the peer never
// gives up earlier than the caller.
//
// A timeout that has run out is "1n": the grammar wants a positive number, and one nanosecond has
// passed before any peer can look. One beyond the largest value, "99999999H", becomes that value
// (over 11,000 years). So does an infinite one, for which a caller should leave the header out
// instead.
std::string FormatGrpcTimeout(absl::Duration timeout);

}  // namespace varnic::net

#endif  // CORE_NET_GRPC_TIMEOUT_H_
