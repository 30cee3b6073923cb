#include "core/server/outbound_queue.h"

#include <iterator>
#include <utility>

namespace varnic {

OutboundQueue::Outcome OutboundQueue::Push(OutboundMessage message) {
  return Add({std::move(message), ""});
}

OutboundQueue::Outcome OutboundQueue::PushEvent(OutboundMessage message, const std::string& key) {
  if (entries_.size() >= limits_.conflate_from_messages) {
    const auto waiting = newest_of_key_.find(key);
    if (waiting != newest_of_key_.end()) {
      const std::size_t bytes = bytes_ - waiting->second->message.size() + message.size();
      if (bytes > limits_.max_bytes && entries_.size() > 1) return Outcome::kOverflow;
      bytes_ = bytes;
      waiting->second->message = std::move(message);
      return Outcome::kConflated;
    }
  }
  const Outcome outcome = Add({std::move(message), key});
  if (outcome == Outcome::kQueued) newest_of_key_[key] = std::prev(entries_.end());
  return outcome;
}

OutboundQueue::Outcome OutboundQueue::Add(Entry entry) {
  const std::size_t size = entry.message.size();
  const bool is_full = entries_.size() >= limits_.max_messages || bytes_ + size > limits_.max_bytes;
  if (is_full && !entries_.empty()) {
    return Outcome::kOverflow;
  }
  bytes_ += size;
  entries_.push_back(std::move(entry));
  return Outcome::kQueued;
}

OutboundMessage OutboundQueue::Pop() {
  Entry entry = std::move(entries_.front());
  if (!entry.key.empty()) {
    const auto newest = newest_of_key_.find(entry.key);
    if (newest != newest_of_key_.end() && newest->second == entries_.begin()) {
      newest_of_key_.erase(newest);
    }
  }
  entries_.pop_front();
  bytes_ -= entry.message.size();
  return std::move(entry.message);
}

}  // namespace varnic
