#include "core/server/message_stock.h"

#include <utility>

#include "core/net/block_pool.h"

namespace varnic {
namespace {

using google::protobuf::Message;
using google::protobuf::MessageFactory;

// A text takes no more than twice the memory of the longest that it has held.
constexpr int kMaxTexts = 2;
static_assert(kMaxTexts * 2 * MessageStock::kMaxBytes <= MessageStock::kMaxMemory);

// Whether messages have no other fields than numbers and a few texts.
bool HasFewTexts(const google::protobuf::Descriptor& type) {
  using google::protobuf::FieldDescriptor;
  if (type.extension_range_count() > 0) return false;
  int texts = 0;
  for (int i = 0; i < type.field_count(); ++i) {
    const FieldDescriptor& field = *type.field(i);
    if (field.is_repeated() || field.cpp_type() == FieldDescriptor::CPPTYPE_MESSAGE) return false;
    if (field.cpp_type() == FieldDescriptor::CPPTYPE_STRING) ++texts;
  }
  return texts <= kMaxTexts;
}

bool IsGenerated(const Message& prototype) {
  return MessageFactory::generated_factory()->GetPrototype(prototype.GetDescriptor()) == &prototype;
}

}  // namespace

std::unique_ptr<Message> MessageStock::Take(const Message& prototype) {
  if (prototype_ != &prototype) Adopt(prototype);
  if (message_ != nullptr) return std::move(message_);
  return std::unique_ptr<Message>(prototype.New());
}

void MessageStock::Adopt(const Message& prototype) {
  is_mixed_ = prototype_ != nullptr;
  prototype_ = &prototype;
  reflection_ = IsGenerated(prototype) ? prototype.GetReflection() : nullptr;
  stays_small_ = HasFewTexts(*prototype.GetDescriptor());
  message_ = nullptr;
}

void MessageStock::Give(std::unique_ptr<Message> message, std::size_t bytes, Filler filler) {
  if (message_ != nullptr || !IsWorthKeeping(*message, bytes, filler)) return;
  if (++uses_ == kMaxUses) {
    uses_ = 0;
    return;
  }
  message->Clear();
  message_ = std::move(message);
}

// To ask a message for its reflection takes longer than most of the rest.
bool MessageStock::IsWorthKeeping(const Message& message, std::size_t bytes, Filler filler) const {
  return net::BlockPool::Keeps() && reflection_ != nullptr &&
         (!is_mixed_ || message.GetReflection() == reflection_) && bytes <= kMaxBytes &&
         IsSmall(message, filler);
}

// Looks before the message is cleared: memory that unknown fields have left is not seen after.
bool MessageStock::IsSmall(const Message& message, Filler filler) const {
  if (stays_small_ && filler == Filler::kParser) {
    return reflection_->GetUnknownFields(message).empty();
  }
  return reflection_->SpaceUsedLong(message) <= kMaxMemory;
}

}  // namespace varnic
