#include "core/host/debounce.h"

#include <utility>

namespace varnic::host {

Debounce::Debounce(Scheduler& scheduler, const DebounceTimes& times, std::function<void()> on_quiet)
    : scheduler_(scheduler), times_(times), on_quiet_(std::move(on_quiet)) {}

void Debounce::OnChange() {
  quiet_timer_ = scheduler_.RunAfter(times_.quiet, [this] { OnTimer(); });
  if (longest_timer_ != nullptr) return;
  longest_timer_ = scheduler_.RunAfter(times_.longest, [this] { OnTimer(); });
}

void Debounce::Cancel() {
  quiet_timer_ = nullptr;
  longest_timer_ = nullptr;
}

void Debounce::OnTimer() {
  Cancel();
  on_quiet_();
}

}  // namespace varnic::host
