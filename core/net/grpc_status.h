#ifndef CORE_NET_GRPC_STATUS_H_
#define CORE_NET_GRPC_STATUS_H_

#include <cstdint>
#include <optional>
#include <string_view>

#include "absl/status/status.h"

namespace varnic::net {

// The value of the grpc-status trailer for `code`, "0" to "16"; abseil's codes are gRPC's. A number
// that is no code is UNKNOWN. The text lives forever.
std::string_view FormatGrpcStatus(absl::StatusCode code);

// The reverse; nullopt for anything but "0" to "16".
std::optional<absl::StatusCode> ParseGrpcStatus(std::string_view value);

// What a call ended with, from the values of its trailers grpc-status and grpc-message, the latter
// still percent-encoded and empty if absent. A status that is no gRPC code becomes UNKNOWN with a
// text that names it.
absl::Status StatusFromTrailers(std::string_view grpc_status, std::string_view grpc_message);

// The code for an answer that has no grpc-status, as broken servers and proxies send it, from its
// HTTP status (gRPC's "HTTP to gRPC Status Code Mapping").
absl::StatusCode StatusFromHttp(int http_status);

// The code for a stream that the peer ended with RST_STREAM (gRPC's PROTOCOL-HTTP2, "Errors").
// Codes that the table leaves out count as INTERNAL_ERROR, which RFC 9113, section 7, allows. Never
// OK.
absl::StatusCode StatusFromRstStream(uint32_t http2_error_code);

}  // namespace varnic::net

#endif  // CORE_NET_GRPC_STATUS_H_
