#ifndef CORE_SERVER_OUTBOUND_QUEUE_H_
#define CORE_SERVER_OUTBOUND_QUEUE_H_

#include <cstddef>
#include <list>
#include <memory>
#include <string>

#include "absl/container/flat_hash_map.h"

namespace varnic {

// How much may wait for a reader that is slower than the host.
struct OutboundLimits {
  // From so many waiting messages on, a newer event replaces a waiting one of the same key.
  std::size_t conflate_from_messages = 64;
  // Past either of these, the stream ends with RESOURCE_EXHAUSTED; but a message that finds nothing
  // waiting is sent, however long it is.
  std::size_t max_messages = 1024;
  std::size_t max_bytes = 1 << 20;
};

// A message that is ready for the wire, in up to two pieces; the second may belong to many streams.
struct OutboundMessage {
  std::string head;
  std::shared_ptr<const std::string> shared;  // May be null.

  std::size_t size() const { return head.size() + (shared == nullptr ? 0 : shared->size()); }
};

// The messages of one stream that wait until its reader has taken earlier ones. Events are states:
// of those that wait long, only the newest of each key matters. Anything else is sent as it came.
class OutboundQueue {
 public:
  explicit OutboundQueue(const OutboundLimits& limits) : limits_(limits) {}

  enum class Outcome {
    kQueued,
    // An older event of the same key will not be sent: this one stands in its place.
    kConflated,
    // There is no room; nothing was added.
    kOverflow,
  };
  Outcome Push(OutboundMessage message);
  // `key` says what the event is about; it is not empty.
  Outcome PushEvent(OutboundMessage message, const std::string& key);

  // The oldest. Only while it is not empty.
  OutboundMessage Pop();

  bool empty() const { return entries_.empty(); }
  std::size_t messages() const { return entries_.size(); }
  std::size_t bytes() const { return bytes_; }

 private:
  struct Entry {
    OutboundMessage message;
    std::string key;  // Empty if it is no event.
  };

  Outcome Add(Entry entry);

  const OutboundLimits limits_;
  std::size_t bytes_ = 0;
  std::list<Entry> entries_;
  absl::flat_hash_map<std::string, std::list<Entry>::iterator> newest_of_key_;
};

}  // namespace varnic

#endif  // CORE_SERVER_OUTBOUND_QUEUE_H_
