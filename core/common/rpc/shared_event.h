#ifndef CORE_COMMON_RPC_SHARED_EVENT_H_
#define CORE_COMMON_RPC_SHARED_EVENT_H_

#include <google/protobuf/message.h>

#include <memory>
#include <string>

namespace varnic {

// The bytes of one event on their way to any number of subscribers. Copies share the bytes, which
// never change, and the last copy frees them. A moved-from event may only be assigned to or
// destroyed.
class SharedEvent {
 public:
  // Serialises both, now. `key` is what the event was published under.
  SharedEvent(const google::protobuf::Message& event, const google::protobuf::Message& key);

  // The serialised event.
  const std::string& payload() const { return content_->payload; }
  // The same, for a transport to keep until it is sent.
  std::shared_ptr<const std::string> shared_payload() const {
    return {content_, &content_->payload};
  }
  // Equal for events that were published under keys of equal content. The later of two such events
  // stands for both.
  const std::string& conflation_key() const { return content_->conflation_key; }

 private:
  struct Content {
    std::string payload;
    std::string conflation_key;
  };

  std::shared_ptr<const Content> content_;
};

}  // namespace varnic

#endif  // CORE_COMMON_RPC_SHARED_EVENT_H_
