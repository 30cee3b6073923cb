// Lists of languages: what is accepted is in its final form, and means the same in it.

#include <string>

#include "absl/status/status.h"
#include "absl/strings/string_view.h"
#include "core/common/rpc/fatal.h"
#include "core/host/accept_language.h"

namespace varnic::host {
namespace {

void Check(absl::string_view list) {
  const auto normalized = NormalizeAcceptLanguage(list);
  if (!normalized.ok()) {
    VARNIC_CHECK(normalized.status().code() == absl::StatusCode::kInvalidArgument);
    VARNIC_CHECK(!normalized.status().message().empty());
    return;
  }
  VARNIC_CHECK(!normalized->empty() && normalized->size() <= list.size());
  // Everything that could end a line of a header, or start something new in it, is gone.
  constexpr char kForbidden[] = " \t\r\n;\"";  // And the zero at its end.
  VARNIC_CHECK(normalized->find_first_of(kForbidden, 0, sizeof(kForbidden)) == std::string::npos);
  const auto again = NormalizeAcceptLanguage(*normalized);
  VARNIC_CHECK(again.ok() && *again == *normalized);
}

}  // namespace
}  // namespace varnic::host

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  varnic::host::Check({reinterpret_cast<const char*>(data), size});
  return 0;
}
