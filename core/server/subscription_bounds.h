#ifndef CORE_SERVER_SUBSCRIPTION_BOUNDS_H_
#define CORE_SERVER_SUBSCRIPTION_BOUNDS_H_

#include <cstddef>
#include <string>

#include "absl/container/flat_hash_set.h"
#include "absl/status/status.h"

namespace varnic {

// How much one stream may make the host keep by subscribing.
struct SubscriptionLimits {
  // Keys that a stream is subscribed to at a time.
  std::size_t max_subscriptions = 256;
  // Messages that subscribe or unsubscribe, over the stream's life. An event stream never frees one
  // (and counts every message it gets as one), so what a stream leaves behind is bounded by this.
  std::size_t max_messages = 4096;
  // And bytes of all these messages together, as they came, over the stream's life. Parsed, they
  // take several times as much.
  std::size_t max_bytes = 1 << 20;
};

// Counts one stream's subscriptions. Two keys are the same if they serialise alike.
class SubscriptionBounds {
 public:
  explicit SubscriptionBounds(const SubscriptionLimits& limits) : limits_(limits) {}

  // Each before the stream gets the message. RESOURCE_EXHAUSTED names the limit; the stream has to
  // end.
  absl::Status OnMessage(std::size_t bytes);
  absl::Status OnSubscribe(const std::string& key);
  void OnUnsubscribe(const std::string& key);

  std::size_t subscriptions() const { return keys_.size(); }

 private:
  const SubscriptionLimits limits_;
  std::size_t messages_ = 0;
  std::size_t bytes_ = 0;
  absl::flat_hash_set<std::string> keys_;
};

}  // namespace varnic

#endif  // CORE_SERVER_SUBSCRIPTION_BOUNDS_H_
