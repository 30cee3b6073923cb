#include "core/common/rpc/message_hash.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>

#include <string>

#include "absl/hash/hash.h"
#include "absl/strings/string_view.h"

namespace varnic {
namespace {

// The deterministic serialisation of one message. Lives on the stack while the message is small.
class Content {
 public:
  explicit Content(const google::protobuf::Message& message) : size_(message.ByteSizeLong()) {
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

}  // namespace

std::size_t MessageHash::operator()(const google::protobuf::Message* message) const {
  return absl::HashOf(message->GetDescriptor(), Content(*message).bytes());
}

bool MessageEqual::operator()(const google::protobuf::Message* a,
                              const google::protobuf::Message* b) const {
  if (a == b) return true;
  if (a->GetDescriptor() != b->GetDescriptor()) return false;
  return Content(*a).bytes() == Content(*b).bytes();
}

}  // namespace varnic
