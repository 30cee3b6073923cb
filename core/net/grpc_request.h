#ifndef CORE_NET_GRPC_REQUEST_H_
#define CORE_NET_GRPC_REQUEST_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <variant>

#include "absl/status/status.h"
#include "absl/time/time.h"
#include "core/net/header_list.h"

namespace varnic::net {

// What a request's header block says (gRPC's PROTOCOL-HTTP2, "Requests"). Views into the block.
struct GrpcRequestHead {
  std::string_view path;
  absl::Duration timeout = absl::InfiniteDuration();
  // "identity" if the client names none.
  std::string_view encoding = "identity";
  // The whole block.
  const HeaderList* headers = nullptr;
};

// How a request that is no gRPC call is answered: with a bare HTTP status.
struct HttpRejection {
  std::string_view http_status;
};

// A call; or a call that fails before it begins; or no call at all.
using GrpcRequest = std::variant<GrpcRequestHead, absl::Status, HttpRejection>;

GrpcRequest ParseGrpcRequest(const HeaderList& headers);

// Keeps what the last header block said, for the next one that is the same.
class GrpcRequestMemo {
 public:
  // Valid until the next call, and until `headers` change.
  const GrpcRequest& Of(const HeaderList& headers);

 private:
  const HeaderList* headers_ = nullptr;  // Of `request_`, whose views point there.
  std::uint64_t revision_ = 0;
  GrpcRequest request_;
};

// Whether a content-type names gRPC with messages in any format ("application/grpc+proto").
bool IsGrpcContentType(std::string_view content_type);

}  // namespace varnic::net

#endif  // CORE_NET_GRPC_REQUEST_H_
