// The grpc-message trailer: what is encoded comes back, and stands in a header field as it is.

#include <algorithm>
#include <string>

#include "core/common/rpc/fatal.h"
#include "core/net/percent_encoding.h"

namespace varnic::net {
namespace {

void Check(std::string_view text) {
  const std::string encoded = PercentEncode(text);
  VARNIC_CHECK(PercentDecode(encoded) == text);
  VARNIC_CHECK(encoded.size() <= 3 * text.size());
  VARNIC_CHECK(
      std::all_of(encoded.begin(), encoded.end(), [](char c) { return c >= ' ' && c <= '~'; }));
  VARNIC_CHECK(encoded.empty() || (encoded.front() != ' ' && encoded.back() != ' '));

  const std::string decoded = PercentDecode(text);
  VARNIC_CHECK(decoded.size() <= text.size());
  VARNIC_CHECK(PercentDecode(PercentEncode(decoded)) == decoded);
}

}  // namespace
}  // namespace varnic::net

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  varnic::net::Check({reinterpret_cast<const char*>(data), size});
  return 0;
}
