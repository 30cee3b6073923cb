#include "core/common/rpc/shared_event.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>

#include <memory>
#include <string>
#include <utility>

namespace varnic {
namespace {

std::string SerializeDeterministically(const google::protobuf::Message& message) {
  std::string bytes;
  google::protobuf::io::StringOutputStream string(&bytes);
  google::protobuf::io::CodedOutputStream output(&string);
  output.SetSerializationDeterministic(true);
  (void)message.SerializeToCodedStream(&output);
  output.Trim();
  return bytes;
}

}  // namespace

SharedEvent::SharedEvent(const google::protobuf::Message& event,
                         const google::protobuf::Message& key)
    : content_(std::make_shared<const Content>(
          Content{event.SerializeAsString(), SerializeDeterministically(key)})) {}

}  // namespace varnic
