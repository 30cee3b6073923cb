#include "core/server/metrics/call_counters.h"

#include <algorithm>
#include <numeric>
#include <utility>

#include "absl/strings/str_cat.h"
#include "absl/strings/string_view.h"

namespace varnic {
namespace {

// No path is like this: each has a slash.
constexpr char kUnknownMethod[] = "unknown";

std::unique_ptr<MethodCounters> NewMethod(std::string label, bool is_stream) {
  auto method = std::make_unique<MethodCounters>();
  method->label = std::move(label);
  method->is_stream = is_stream;
  return method;
}

}  // namespace

void DurationHistogram::Add(absl::Duration duration) {
  const double seconds = absl::ToDoubleSeconds(duration);
  const auto bound = std::lower_bound(kBounds.begin(), kBounds.end(), seconds);
  ++buckets_[static_cast<std::size_t>(bound - kBounds.begin())];
  sum_seconds_ += seconds;
}

void CallEnds::OnCallEnded(absl::StatusCode code, absl::Duration duration) {
  auto number = static_cast<std::size_t>(code);
  if (number >= kCodes) number = static_cast<std::size_t>(absl::StatusCode::kUnknown);
  ++by_code_[number];
  if (durations_[number] == nullptr) durations_[number] = std::make_unique<DurationHistogram>();
  durations_[number]->Add(duration);
}

std::uint64_t CallEnds::total() const {
  return std::accumulate(by_code_.begin(), by_code_.end(), std::uint64_t{0});
}

CallCounters::CallCounters() {
  methods_.push_back(NewMethod(kUnknownMethod, /*is_stream=*/false));
}

void CallCounters::Add(const google::protobuf::ServiceDescriptor& service) {
  for (int i = 0; i < service.method_count(); ++i) {
    const google::protobuf::MethodDescriptor& method = *service.method(i);
    const std::string path = absl::StrCat("/", service.full_name(), "/", method.name());
    methods_.push_back(NewMethod(path, method.client_streaming() || method.server_streaming()));
    by_path_.emplace(path, methods_.back().get());
  }
}

MethodCounters& CallCounters::Of(std::string_view path) {
  const auto found = by_path_.find(absl::string_view(path.data(), path.size()));
  return found == by_path_.end() ? *methods_.front() : *found->second;
}

}  // namespace varnic
