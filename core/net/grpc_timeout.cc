#include "core/net/grpc_timeout.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "absl/strings/str_cat.h"

namespace varnic::net {
namespace {

constexpr size_t kMaxDigits = 8;
constexpr int64_t kMaxValue = 99'999'999;

struct Unit {
  char letter;
  absl::Duration length;
};

// Finest first.
constexpr Unit kUnits[] = {
    {'n', absl::Nanoseconds(1)}, {'u', absl::Microseconds(1)}, {'m', absl::Milliseconds(1)},
    {'S', absl::Seconds(1)},     {'M', absl::Minutes(1)},      {'H', absl::Hours(1)},
};

// `timeout` lies between zero and kMaxValue units.
std::string FormatIn(const Unit& unit, absl::Duration timeout) {
  absl::Duration remainder;
  const int64_t whole = absl::IDivDuration(timeout, unit.length, &remainder);
  const int64_t rounded_up = whole + (remainder > absl::ZeroDuration() ? 1 : 0);
  return absl::StrCat(rounded_up, absl::string_view(&unit.letter, 1));
}

}  // namespace

std::optional<absl::Duration> ParseGrpcTimeout(std::string_view value) {
  if (value.size() < 2 || value.size() > kMaxDigits + 1) return std::nullopt;
  int64_t count = 0;
  for (const char digit : value.substr(0, value.size() - 1)) {
    if (digit < '0' || digit > '9') return std::nullopt;
    count = count * 10 + (digit - '0');
  }
  for (const Unit& unit : kUnits) {
    if (unit.letter == value.back()) return count * unit.length;
  }
  return std::nullopt;
}

std::string FormatGrpcTimeout(absl::Duration timeout) {
  timeout = std::max(timeout, absl::Nanoseconds(1));
  for (const Unit& unit : kUnits) {
    if (timeout <= kMaxValue * unit.length) return FormatIn(unit, timeout);
  }
  return "99999999H";
}

}  // namespace varnic::net
