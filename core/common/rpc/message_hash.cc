#include "core/common/rpc/message_hash.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>

#include <algorithm>
#include <string>

#include "absl/hash/hash.h"
#include "absl/strings/string_view.h"
#include "rpc/identifiers.pb.h"

namespace varnic {
namespace {

using google::protobuf::Message;

// The deterministic serialisation of one message. Lives on the stack while the message is small.
class Content {
 public:
  explicit Content(const Message& message) : size_(message.ByteSizeLong()) {
    if (size_ > sizeof(small_)) large_.resize(size_);
    google::protobuf::io::ArrayOutputStream array(buffer(), static_cast<int>(size_));
    google::protobuf::io::CodedOutputStream output(&array);
    output.SetSerializationDeterministic(true);
    message.SerializeWithCachedSizes(&output);
  }
  // Of a profile's id, which is the key of most registries.
  explicit Content(const std::string& id) : size_(id.size() + kIdHead) {
    small_[0] = kIdTag;
    small_[1] = static_cast<char>(id.size());
    std::copy(id.begin(), id.end(), small_ + kIdHead);
  }
  static constexpr std::size_t kMaxIdSize = 127;

  absl::string_view bytes() const {
    return {size_ > sizeof(small_) ? large_.data() : small_, size_};
  }

 private:
  // Before the text: the field's tag, and the length, which is one byte up to 127.
  static constexpr std::size_t kIdHead = 2;
  static constexpr char kIdTag = ProfileId::kValueFieldNumber << 3 | /*length-delimited*/ 2;

  char* buffer() { return size_ > sizeof(small_) ? &large_[0] : small_; }

  std::size_t size_;
  char small_[512];
  std::string large_;
};

// Tells generated classes apart by what protobuf itself compares to do so. A reflection or a
// descriptor costs several times the rest of a look-up: protobuf takes a lock-free, but long way
// through std::call_once for each.
#if GOOGLE_PROTOBUF_VERSION < 3022000
class ClassOf : public Message {
 public:
  // Null for a dynamic message.
  static const void* Get(const Message& message) { return (message.*&ClassOf::GetClassData)(); }
};
#else  // Has other internals.
class ClassOf {
 public:
  static const void* Get(const Message& message) { return message.GetReflection(); }
};
#endif

// The text of a profile's id that has nothing else; null for any other message.
const std::string* PlainId(const Message& message) {
  static const void* const profile_id = ClassOf::Get(ProfileId::default_instance());
  static const google::protobuf::Reflection* const reflection = ProfileId::GetReflection();
  if (ClassOf::Get(message) != profile_id) return nullptr;
  const auto& id = static_cast<const ProfileId&>(message);
  return reflection->GetUnknownFields(id).empty() ? &id.value() : nullptr;
}

std::size_t HashOf(const google::protobuf::Descriptor* type, const Content& content) {
  return absl::HashOf(type, content.bytes());
}

}  // namespace

std::size_t MessageHash::operator()(const Message* message) const {
  const std::string* id = PlainId(*message);
  if (id == nullptr || id->empty() || id->size() > Content::kMaxIdSize) {
    return HashOf(message->GetDescriptor(), Content(*message));
  }
  static const google::protobuf::Descriptor* const type = ProfileId::descriptor();
  return HashOf(type, Content(*id));
}

bool MessageEqual::operator()(const Message* a, const Message* b) const {
  if (a == b) return true;
  const std::string* a_id = PlainId(*a);
  const std::string* b_id = a_id == nullptr ? nullptr : PlainId(*b);
  if (a_id != nullptr && b_id != nullptr) return *a_id == *b_id;
  if (a->GetDescriptor() != b->GetDescriptor()) return false;
  return Content(*a).bytes() == Content(*b).bytes();
}

}  // namespace varnic
