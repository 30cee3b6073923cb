// Timeouts: any text is parsed or refused, and what is written for any duration comes back as the
// least duration that is not shorter.

#include <algorithm>
#include <string>

#include "absl/time/time.h"
#include "core/common/rpc/fatal.h"
#include "core/net/grpc_timeout.h"
#include "fuzz/fuzz_input.h"

namespace varnic::net {
namespace {

const absl::Duration kLongest = absl::Hours(99'999'999);

absl::Duration ThereAndBack(absl::Duration timeout) {
  const std::string text = FormatGrpcTimeout(timeout);
  const auto parsed = ParseGrpcTimeout(text);
  VARNIC_CHECK(parsed.has_value());
  VARNIC_CHECK(FormatGrpcTimeout(*parsed) == text);
  VARNIC_CHECK(*parsed >= std::min(timeout, kLongest));
  return *parsed;
}

void CheckText(std::string_view text) {
  const auto parsed = ParseGrpcTimeout(text);
  if (!parsed) return;
  VARNIC_CHECK(*parsed >= absl::ZeroDuration() && *parsed <= kLongest);
  // What was parsed has 8 digits in some unit, so a coarser one never has to be taken.
  VARNIC_CHECK(ThereAndBack(*parsed) == std::max(*parsed, absl::Nanoseconds(1)));
}

void CheckDurations(fuzz::FuzzInput& input) {
  const absl::Duration seconds = absl::Seconds(input.TakeInt64());
  const absl::Duration one = seconds + absl::Nanoseconds(input.TakeInt64());
  const absl::Duration other = absl::Nanoseconds(input.TakeInt64());
  VARNIC_CHECK((ThereAndBack(one) <= ThereAndBack(other)) || other <= one);
  VARNIC_CHECK((ThereAndBack(other) <= ThereAndBack(one)) || one <= other);
}

}  // namespace
}  // namespace varnic::net

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  varnic::fuzz::FuzzInput input(data, size);
  varnic::net::CheckDurations(input);
  varnic::net::CheckText({reinterpret_cast<const char*>(data), size});
  return 0;
}
