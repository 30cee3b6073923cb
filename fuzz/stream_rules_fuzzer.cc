// The rules that bound what one stream makes the server keep, against any sequence of what hosts
// and clients do: never more is kept than the limits say, nothing is refused that they allow, and
// of what waits for a reader only events are replaced, by newer ones of their key. Both rules are
// compared with small models of them.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "absl/status/status.h"
#include "core/common/rpc/fatal.h"
#include "core/server/outbound_queue.h"
#include "core/server/subscription_bounds.h"
#include "fuzz/fuzz_input.h"

namespace varnic {
namespace {

using fuzz::FuzzInput;
using Outcome = OutboundQueue::Outcome;

constexpr int kMaxSteps = 500;

// What is pushed has a number in its text, so that it is known when it comes out.
class FuzzedQueue {
 public:
  explicit FuzzedQueue(FuzzInput& input) : input_(input), limits_(TakeLimits(input)) {}

  void Run() {
    for (int i = 0; i < kMaxSteps && !input_.empty(); ++i) {
      Step();
      CheckBounds();
    }
    while (!waiting_.empty()) Pop();
    VARNIC_CHECK(queue_.empty() && queue_.messages() == 0 && queue_.bytes() == 0);
    VARNIC_CHECK(pushed_ == popped_ + conflated_ + refused_);
  }

 private:
  struct Message {
    std::string text;
    std::string key;  // Empty if it is a question.
    int number = 0;
  };

  static OutboundLimits TakeLimits(FuzzInput& input) {
    OutboundLimits limits;
    limits.conflate_from_messages = input.TakeBelow(16);
    limits.max_messages = input.TakeBelow(32);
    limits.max_bytes = input.TakeByte() * std::size_t{8};
    return limits;
  }

  // A letter, `a` to `d`, and what it needs.
  void Step() {
    switch (input_.TakeByte() & 3) {
      case 'a' & 3:
        return Ask();
      case 'd' & 3:
        if (!waiting_.empty()) Pop();
        return;
      default:
        Publish();
    }
  }

  void Ask() {
    Message message = TakeMessage();
    const bool has_room = HasRoomFor(message);
    const Outcome outcome = queue_.Push(Outbound(message.text));
    VARNIC_CHECK(outcome == (has_room ? Outcome::kQueued : Outcome::kOverflow));
    Keep(outcome, std::move(message));
  }

  void Publish() {
    Message event = TakeMessage();
    event.key = std::string(1, static_cast<char>('a' + input_.TakeBelow(4)));
    const auto older = FindOlder(event.key);
    const bool has_room =
        older == waiting_.end() ? HasRoomFor(event) : HasRoomInPlaceOf(*older, event.text.size());
    const Outcome outcome = queue_.PushEvent(Outbound(event.text), event.key);
    if (!has_room) {
      VARNIC_CHECK(outcome == Outcome::kOverflow);
    } else {
      VARNIC_CHECK(outcome == (older == waiting_.end() ? Outcome::kQueued : Outcome::kConflated));
    }
    if (outcome != Outcome::kConflated) return Keep(outcome, std::move(event));
    ++conflated_;
    bytes_ = bytes_ - older->text.size() + event.text.size();
    *older = std::move(event);
  }

  Message TakeMessage() {
    Message message;
    message.number = pushed_++;
    const std::size_t size = input_.TakeByte();
    message.text = std::string(size, static_cast<char>(message.number));
    return message;
  }

  OutboundMessage Outbound(std::string_view text) const {
    OutboundMessage message;
    const std::size_t own = pushed_ % 2 == 0 ? text.size() : text.size() / 3;
    message.head = text.substr(0, own);
    if (own < text.size()) message.shared = std::make_shared<const std::string>(text.substr(own));
    return message;
  }

  void Keep(Outcome outcome, Message message) {
    if (outcome == Outcome::kOverflow) {
      ++refused_;
      return;
    }
    bytes_ += message.text.size();
    waiting_.push_back(std::move(message));
  }

  void Pop() {
    const Message expected = std::move(waiting_.front());
    waiting_.pop_front();
    bytes_ -= expected.text.size();
    ++popped_;
    CheckOrder(expected);
    const OutboundMessage message = queue_.Pop();
    VARNIC_CHECK(message.head + (message.shared == nullptr ? "" : *message.shared) ==
                 expected.text);
  }

  // Questions come out as they went in, and no event after a newer one of its key.
  void CheckOrder(const Message& message) {
    int& newest = newest_popped_[message.key];
    VARNIC_CHECK(message.number >= newest);
    newest = message.number + 1;
  }

  // The event that a newer one of the key replaces.
  std::list<Message>::iterator FindOlder(const std::string& key) {
    if (waiting_.size() < limits_.conflate_from_messages) return waiting_.end();
    const auto older = std::find_if(waiting_.rbegin(), waiting_.rend(),
                                    [&](const Message& message) { return message.key == key; });
    return older == waiting_.rend() ? waiting_.end() : std::prev(older.base());
  }

  bool HasRoomFor(const Message& message) const {
    return waiting_.empty() || (waiting_.size() < limits_.max_messages &&
                                bytes_ + message.text.size() <= limits_.max_bytes);
  }

  bool HasRoomInPlaceOf(const Message& older, std::size_t bytes) const {
    return waiting_.size() == 1 || bytes_ - older.text.size() + bytes <= limits_.max_bytes;
  }

  void CheckBounds() const {
    VARNIC_CHECK(queue_.messages() == waiting_.size() && queue_.bytes() == bytes_);
    VARNIC_CHECK(queue_.empty() == waiting_.empty());
    if (waiting_.size() <= 1) return;  // What found nothing waiting.
    VARNIC_CHECK(queue_.messages() <= limits_.max_messages);
    VARNIC_CHECK(queue_.bytes() <= limits_.max_bytes);
  }

  FuzzInput& input_;
  const OutboundLimits limits_;
  OutboundQueue queue_{limits_};
  std::list<Message> waiting_;
  std::size_t bytes_ = 0;
  std::map<std::string, int> newest_popped_;  // By key; one more than its number.
  int pushed_ = 0;
  int popped_ = 0;
  int conflated_ = 0;
  int refused_ = 0;
};

class FuzzedSubscriptions {
 public:
  explicit FuzzedSubscriptions(FuzzInput& input) : input_(input), limits_(TakeLimits(input)) {}

  void Run() {
    for (int i = 0; i < kMaxSteps && !input_.empty(); ++i) {
      Step();
      VARNIC_CHECK(bounds_.subscriptions() == keys_.size());
      VARNIC_CHECK(keys_.size() <= limits_.max_subscriptions);
    }
  }

 private:
  static SubscriptionLimits TakeLimits(FuzzInput& input) {
    SubscriptionLimits limits;
    limits.max_subscriptions = input.TakeBelow(16);
    limits.max_messages = input.TakeByte();
    limits.max_bytes = input.TakeByte() * std::size_t{16};
    return limits;
  }

  // A letter, `a` to `c`, and what it needs.
  void Step() {
    switch (input_.TakeByte() & 3) {
      case 'a' & 3:
        return Subscribe(TakeKey());
      case 'b' & 3:
        return Unsubscribe(TakeKey());
      default:
        Count(input_.TakeByte());
    }
  }

  void Subscribe(const std::string& key) {
    const bool is_allowed = keys_.count(key) > 0 || keys_.size() < limits_.max_subscriptions;
    CheckStatus(bounds_.OnSubscribe(key), is_allowed);
    if (is_allowed) keys_.insert(key);
  }

  // Gives back its own key, if it was one, and no other.
  void Unsubscribe(const std::string& key) {
    bounds_.OnUnsubscribe(key);
    keys_.erase(key);
  }

  void Count(std::size_t bytes) {
    ++messages_;
    bytes_ += bytes;
    CheckStatus(bounds_.OnMessage(bytes),
                messages_ <= limits_.max_messages && bytes_ <= limits_.max_bytes);
  }

  static void CheckStatus(const absl::Status& status, bool is_allowed) {
    VARNIC_CHECK(status.ok() == is_allowed);
    VARNIC_CHECK(status.ok() || absl::IsResourceExhausted(status));
  }

  std::string TakeKey() { return std::string(input_.TakeBelow(24), 'k'); }

  FuzzInput& input_;
  const SubscriptionLimits limits_;
  SubscriptionBounds bounds_{limits_};
  std::set<std::string> keys_;
  std::size_t messages_ = 0;
  std::size_t bytes_ = 0;
};

}  // namespace
}  // namespace varnic

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  varnic::fuzz::FuzzInput input(data, size);
  if (input.TakeBool()) {
    varnic::FuzzedSubscriptions(input).Run();
  } else {
    varnic::FuzzedQueue(input).Run();
  }
  return 0;
}
