#include "core/common/rpc/message_hash.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>

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
  absl::string_view bytes() const {
    return {size_ > sizeof(small_) ? large_.data() : small_, size_};
  }

 private:
  char* buffer() { return size_ > sizeof(small_) ? &large_[0] : small_; }

  std::size_t size_;
  char small_[512];
  std::string large_;
};

// Tells generated classes apart by what protobuf itself compares to do so. A reflection or a
// descriptor costs several times the rest of a look-up: protobuf takes a lock-free, but long way
// through std::call_once for each.
#if GOOGLE_PROTOBUF_VERSION < 3022000
class Internals : public Message {
 public:
  // Null for a dynamic message.
  static const void* ClassOf(const Message& message) {
    return (message.*&Internals::GetClassData)();
  }
  // True if it has any, and maybe if it had.
  static bool MayHaveUnknownFields(const Message& message) {
    return (message.*&Internals::_internal_metadata_).have_unknown_fields();
  }
};
#else  // Has others.
class Internals {
 public:
  static const void* ClassOf(const Message& message) { return message.GetReflection(); }
  static bool MayHaveUnknownFields(const Message& message) {
    return !message.GetReflection()->GetUnknownFields(message).empty();
  }
};
#endif

// The text of a profile's id, the key of most registries, if it has nothing else for certain; null
// for any other message.
const std::string* PlainId(const Message& message) {
  static const void* const profile_id = Internals::ClassOf(ProfileId::default_instance());
  if (Internals::ClassOf(message) != profile_id) return nullptr;
  if (Internals::MayHaveUnknownFields(message)) return nullptr;
  return &static_cast<const ProfileId&>(message).value();
}

// Texts up to this size have a length of one byte.
constexpr std::size_t kMaxShortId = 127;

// Of a plain id that is neither empty nor longer than that.
std::size_t HashOfShortId(absl::string_view id) {
  return absl::HashOf(id);
}

// The same id in another message: a dynamic one, or one that has had unknown fields. Empty for any
// other content.
absl::string_view ShortIdIn(absl::string_view content) {
  constexpr std::size_t kHead = 2;  // The field's tag, and the length.
  constexpr char kTag = ProfileId::kValueFieldNumber << 3 | /*length-delimited*/ 2;
  if (content.size() <= kHead || content.size() > kHead + kMaxShortId) return {};
  if (content[0] != kTag || static_cast<std::size_t>(content[1]) != content.size() - kHead) {
    return {};
  }
  return content.substr(kHead);
}

std::size_t HashOfContent(const Message& message) {
  const Content content(message);
  const google::protobuf::Descriptor* const type = message.GetDescriptor();
  if (type == ProfileId::descriptor()) {
    const absl::string_view id = ShortIdIn(content.bytes());
    if (!id.empty()) return HashOfShortId(id);
  }
  return absl::HashOf(type, content.bytes());
}

}  // namespace

std::size_t MessageHash::operator()(const Message* message) const {
  const std::string* id = PlainId(*message);
  if (id == nullptr || id->empty() || id->size() > kMaxShortId) return HashOfContent(*message);
  return HashOfShortId(*id);
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
