#include "core/net/grpc_request.h"

#include "absl/strings/escaping.h"
#include "absl/strings/str_cat.h"
#include "core/net/grpc_timeout.h"

namespace varnic::net {

bool IsGrpcContentType(std::string_view content_type) {
  constexpr std::string_view kGrpc = "application/grpc";
  if (content_type.substr(0, kGrpc.size()) != kGrpc) return false;
  if (content_type.size() == kGrpc.size()) return true;
  const char next = content_type[kGrpc.size()];
  return next == '+' || next == ';';
}

GrpcRequest ParseGrpcRequest(const HeaderList& headers) {
  GrpcRequestHead head;
  head.headers = &headers;
  std::string_view method;
  std::string_view content_type;
  std::string_view timeout;
  for (std::size_t i = 0; i < headers.size(); ++i) {
    const auto [name, value] = headers[i];
    if (name == ":path") {
      head.path = value;
    } else if (name == ":method") {
      method = value;
    } else if (name == "content-type") {
      content_type = value;
    } else if (name == "grpc-encoding") {
      head.encoding = value;
    } else if (name == "grpc-timeout") {
      timeout = value;
    }
  }
  // What is no call gets no gRPC status, so this comes first.
  if (method != "POST") return HttpRejection{"405"};
  if (!IsGrpcContentType(content_type)) return HttpRejection{"415"};
  if (timeout.data() == nullptr) return head;
  const auto parsed = ParseGrpcTimeout(timeout);
  if (!parsed) {
    return absl::InternalError(
        absl::StrCat("Malformed grpc-timeout: ", absl::CHexEscape(std::string(timeout))));
  }
  head.timeout = *parsed;
  return head;
}

const GrpcRequest& GrpcRequestMemo::Of(const HeaderList& headers) {
  if (headers_ != &headers || revision_ != headers.revision()) {
    request_ = ParseGrpcRequest(headers);
    headers_ = &headers;
    revision_ = headers.revision();
  }
  return request_;
}

}  // namespace varnic::net
