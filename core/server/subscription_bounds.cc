#include "core/server/subscription_bounds.h"

#include "absl/strings/str_cat.h"

namespace varnic {

absl::Status SubscriptionBounds::OnMessage(std::size_t bytes) {
  bytes_ += bytes;
  if (++messages_ > limits_.max_messages) {
    return absl::ResourceExhaustedError(
        absl::StrCat("More than ", limits_.max_messages, " subscription messages on one stream"));
  }
  if (bytes_ > limits_.max_bytes) {
    return absl::ResourceExhaustedError(absl::StrCat(
        "More than ", limits_.max_bytes, " bytes of subscription messages on one stream"));
  }
  return absl::OkStatus();
}

absl::Status SubscriptionBounds::OnSubscribe(const std::string& key) {
  if (keys_.size() >= limits_.max_subscriptions && !keys_.contains(key)) {
    return absl::ResourceExhaustedError(
        absl::StrCat("More than ", limits_.max_subscriptions, " subscriptions on one stream"));
  }
  keys_.insert(key);
  return absl::OkStatus();
}

void SubscriptionBounds::OnUnsubscribe(const std::string& key) {
  keys_.erase(key);
}

}  // namespace varnic
