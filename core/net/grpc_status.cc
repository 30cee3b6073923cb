#include "core/net/grpc_status.h"

#include <nghttp2/nghttp2.h>

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <string>

#include "absl/strings/escaping.h"
#include "absl/strings/str_cat.h"
#include "core/net/percent_encoding.h"

namespace varnic::net {
namespace {

// How much of a peer's nonsense is worth repeating.
constexpr size_t kMaxQuotedSize = 32;

// The place of each is its code.
constexpr std::string_view kCodes[] = {"0", "1",  "2",  "3",  "4",  "5",  "6",  "7", "8",
                                       "9", "10", "11", "12", "13", "14", "15", "16"};

absl::Status UnknownCode(std::string_view grpc_status, const std::string& message) {
  const std::string quoted = absl::CHexEscape(std::string(grpc_status.substr(0, kMaxQuotedSize)));
  return absl::UnknownError(absl::StrCat("grpc-status \"", quoted, "\" is not a gRPC status code",
                                         message.empty() ? "" : ": ", message));
}

}  // namespace

std::string_view FormatGrpcStatus(absl::StatusCode code) {
  const auto number = static_cast<size_t>(code);
  return kCodes[number < std::size(kCodes) ? number
                                           : static_cast<size_t>(absl::StatusCode::kUnknown)];
}

std::optional<absl::StatusCode> ParseGrpcStatus(std::string_view value) {
  const auto* found = std::find(std::begin(kCodes), std::end(kCodes), value);
  if (found == std::end(kCodes)) return std::nullopt;
  return static_cast<absl::StatusCode>(found - std::begin(kCodes));
}

absl::Status StatusFromTrailers(std::string_view grpc_status, std::string_view grpc_message) {
  const std::optional<absl::StatusCode> code = ParseGrpcStatus(grpc_status);
  if (code == absl::StatusCode::kOk) return absl::OkStatus();
  const std::string message = PercentDecode(grpc_message);
  if (!code.has_value()) return UnknownCode(grpc_status, message);
  return absl::Status(*code, message);
}

absl::StatusCode StatusFromHttp(int http_status) {
  switch (http_status) {
    case 400:
    case 431:
      return absl::StatusCode::kInternal;
    case 401:
      return absl::StatusCode::kUnauthenticated;
    case 403:
      return absl::StatusCode::kPermissionDenied;
    case 404:
      return absl::StatusCode::kUnimplemented;
    case 429:
    case 502:
    case 503:
    case 504:
      return absl::StatusCode::kUnavailable;
    default:
      return absl::StatusCode::kUnknown;
  }
}

absl::StatusCode StatusFromRstStream(uint32_t http2_error_code) {
  switch (http2_error_code) {
    case NGHTTP2_REFUSED_STREAM:
      return absl::StatusCode::kUnavailable;
    case NGHTTP2_CANCEL:
      return absl::StatusCode::kCancelled;
    case NGHTTP2_ENHANCE_YOUR_CALM:
      return absl::StatusCode::kResourceExhausted;
    case NGHTTP2_INADEQUATE_SECURITY:
      return absl::StatusCode::kPermissionDenied;
    default:
      // NO_ERROR too: a call that went well ends with trailers, not with a reset.
      return absl::StatusCode::kInternal;
  }
}

}  // namespace varnic::net
