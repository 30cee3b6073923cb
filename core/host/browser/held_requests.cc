#include "core/host/browser/held_requests.h"

#include <set>
#include <utility>

#include "nlohmann/json.hpp"

namespace varnic::host {
namespace {

// DevToolsAnswer's code for "Invalid InterceptionId", which is for a request that is not paused;
// one that is gets another.
bool IsGone(const absl::Status& status) {
  return absl::IsInvalidArgument(status);
}

}  // namespace

HeldRequests::HeldRequests(DevToolsPipe& devtools, QuestionAsker& asker,
                           const HeldRequestOptions& options)
    : devtools_(devtools), asker_(asker), options_(options) {}

HeldRequests::~HeldRequests() {
  while (!requests_.empty()) GiveUp(requests_.begin()->first);
}

HeldRequests::Ticket HeldRequests::Hold(HeldRequest request) {
  if (requests_.size() >= options_.max_requests) return 0;
  const Ticket ticket = ++last_ticket_;
  Entry& entry = requests_[ticket];
  entry.request = std::move(request);
  entry.timer = asker_.scheduler().RunAfter(options_.time, [this, ticket] { GiveUp(ticket); });
  CheckLater();
  return ticket;
}

void HeldRequests::SetQuestion(Ticket ticket, QuestionAsker::Id question) {
  const auto it = requests_.find(ticket);
  if (it == requests_.end()) return asker_.Withdraw(question);
  it->second.question = question;
}

bool HeldRequests::Release(Ticket ticket) {
  return requests_.erase(ticket) != 0;
}

void HeldRequests::Forget(Ticket ticket) {
  const auto entry = requests_.extract(ticket);
  if (!entry.empty() && entry.mapped().question != 0) asker_.Withdraw(entry.mapped().question);
}

void HeldRequests::GiveUp(Ticket ticket) {
  const auto entry = requests_.extract(ticket);
  if (entry.empty()) return;
  if (entry.mapped().question != 0) asker_.Withdraw(entry.mapped().question);
  entry.mapped().request.give_up();
}

void HeldRequests::OnFramesGone(const std::vector<std::string>& frame_ids) {
  const std::set<std::string> gone(frame_ids.begin(), frame_ids.end());
  std::vector<Ticket> tickets;
  for (const auto& [ticket, entry] : requests_) {
    if (gone.count(entry.request.frame_id) != 0) tickets.push_back(ticket);
  }
  for (const Ticket ticket : tickets) GiveUp(ticket);
}

void HeldRequests::Check(const std::string& frame_id) {
  for (auto& [ticket, entry] : requests_) {
    if (entry.request.frame_id == frame_id) CheckOne(ticket, entry);
  }
}

void HeldRequests::CheckOne(Ticket ticket, Entry& entry) {
  if (std::exchange(entry.is_checked, true)) return;
  devtools_.Call({"Fetch.getResponseBody", {{"requestId", entry.request.request_id}}},
                 lifetime_.Guard([this, ticket](const absl::StatusOr<nlohmann::json>& body) {
                   OnChecked(ticket, body.status());
                 }));
}

void HeldRequests::OnChecked(Ticket ticket, const absl::Status& status) {
  if (IsGone(status)) return Forget(ticket);
  if (const auto it = requests_.find(ticket); it != requests_.end()) it->second.is_checked = false;
}

void HeldRequests::CheckLater() {
  if (check_timer_ != nullptr) return;
  check_timer_ = asker_.scheduler().RunAfter(options_.check_time, [this] {
    check_timer_ = nullptr;
    if (requests_.empty()) return;
    for (auto& [ticket, entry] : requests_) CheckOne(ticket, entry);
    CheckLater();
  });
}

}  // namespace varnic::host
