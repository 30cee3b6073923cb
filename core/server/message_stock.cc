#include "core/server/message_stock.h"

#include <utility>

#include "core/net/block_pool.h"

namespace varnic {
namespace {

using google::protobuf::Message;
using google::protobuf::MessageFactory;

bool IsGenerated(const Message& prototype) {
  return MessageFactory::generated_factory()->GetPrototype(prototype.GetDescriptor()) == &prototype;
}

}  // namespace

std::unique_ptr<Message> MessageStock::Take(const Message& prototype) {
  if (prototype_ != &prototype) {
    prototype_ = IsGenerated(prototype) ? &prototype : nullptr;
    message_ = nullptr;
  }
  if (message_ != nullptr) return std::move(message_);
  return std::unique_ptr<Message>(prototype.New());
}

void MessageStock::Give(std::unique_ptr<Message> message, std::size_t bytes) {
  if (message_ != nullptr || !IsWorthKeeping(*message, bytes)) return;
  if (++uses_ == kMaxUses) {
    uses_ = 0;
    return;
  }
  message->Clear();
  message_ = std::move(message);
}

// Looks before the message is cleared: memory that unknown fields have left is not seen after.
bool MessageStock::IsWorthKeeping(const Message& message, std::size_t bytes) const {
  return net::BlockPool::Keeps() && prototype_ != nullptr &&
         message.GetReflection() == prototype_->GetReflection() && bytes <= kMaxBytes &&
         message.SpaceUsedLong() <= kMaxMemory;
}

}  // namespace varnic
