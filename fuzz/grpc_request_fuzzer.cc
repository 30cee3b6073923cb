// Header blocks of requests: a line of the input is a field, with "=" between name and value.

#include <string_view>
#include <variant>

#include "absl/status/status.h"
#include "core/common/rpc/fatal.h"
#include "core/net/grpc_request.h"
#include "core/net/header_list.h"

namespace varnic::net {
namespace {

HeaderList ReadFields(std::string_view lines) {
  HeaderList headers;
  while (!lines.empty()) {
    const std::string_view line = lines.substr(0, lines.find('\n'));
    lines.remove_prefix(line.size() < lines.size() ? line.size() + 1 : line.size());
    const std::string_view name = line.substr(0, line.find('='));
    headers.Add(name, name.size() < line.size() ? line.substr(name.size() + 1) : "");
  }
  return headers;
}

bool Holds(const HeaderList& headers, std::string_view name, std::string_view value) {
  for (std::size_t i = 0; i < headers.size(); ++i) {
    if (headers[i].name == name && headers[i].value == value) return true;
  }
  return false;
}

void Check(const HeaderList& headers) {
  const GrpcRequest request = ParseGrpcRequest(headers);
  if (const auto* head = std::get_if<GrpcRequestHead>(&request)) {
    VARNIC_CHECK(head->headers == &headers);
    VARNIC_CHECK(Holds(headers, ":method", "POST"));
    VARNIC_CHECK(head->path.data() == nullptr || Holds(headers, ":path", head->path));
    VARNIC_CHECK(head->encoding == "identity" || Holds(headers, "grpc-encoding", head->encoding));
    VARNIC_CHECK(head->timeout >= absl::ZeroDuration());
    VARNIC_CHECK(head->timeout == absl::InfiniteDuration() ||
                 headers.Find("grpc-timeout").data() != nullptr);
  } else if (const auto* status = std::get_if<absl::Status>(&request)) {
    VARNIC_CHECK(status->code() == absl::StatusCode::kInternal);
    VARNIC_CHECK(headers.Find("grpc-timeout").data() != nullptr);
  } else {
    const std::string_view http_status = std::get<HttpRejection>(request).http_status;
    VARNIC_CHECK(http_status == "405" || http_status == "415");
    VARNIC_CHECK(http_status == "405" || Holds(headers, ":method", "POST"));
  }
}

}  // namespace
}  // namespace varnic::net

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  varnic::net::Check(varnic::net::ReadFields({reinterpret_cast<const char*>(data), size}));
  return 0;
}
