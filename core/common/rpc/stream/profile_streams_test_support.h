#ifndef CORE_COMMON_RPC_STREAM_PROFILE_STREAMS_TEST_SUPPORT_H_
#define CORE_COMMON_RPC_STREAM_PROFILE_STREAMS_TEST_SUPPORT_H_

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <type_traits>
#include <utility>

#include "core/common/rpc/message_registry.h"
#include "core/common/rpc/service.h"
#include "core/common/rpc/stream/callback_stream.h"
#include "core/common/rpc/stream/event_stream.h"
#include "core/common/rpc/testing/recording_channel.h"
#include "rpc/identifiers.pb.h"
#include "rpc/profile/profile.pb.h"
#include "rpc/profile/profile.rpc.h"
#include "rpc/transport/stream_message.pb.h"

namespace varnic::testing {

using NetworkStream = EventStream<::rpc::NetworkChanged>;
using FileAccessStream = CallbackStream<::rpc::CanAccessFile>;
using AuthenticationStream = CallbackStream<::rpc::Authenticate>;

// The index of the method that a stream class serves.
template <class Stream>
inline constexpr int kMethodOf = std::is_same_v<Stream, NetworkStream>      ? 9
                                 : std::is_same_v<Stream, FileAccessStream> ? 10
                                                                            : 11;

inline const google::protobuf::MethodDescriptor* ProfileMethod(int index) {
  return ::rpc::ProfileRpc::descriptor()->method(index);
}

inline ProfileId Profile(const std::string& value) {
  ProfileId profile;
  profile.set_value(value);
  return profile;
}

inline ::rpc::transport::StreamMessage Envelope(const std::string& payload,
                                                std::int64_t call_id = 0) {
  ::rpc::transport::StreamMessage envelope;
  envelope.set_payload(payload);
  envelope.set_call_id(call_id);
  return envelope;
}

// A stream of the Profile service, fed as a server feeds it. Gets its OnCompleted() at the end at
// the latest, unless it was destroyed before.
template <class Stream>
class ServedStream {
 public:
  explicit ServedStream(Service& service)
      : stream_(static_cast<Stream*>(
            service.OpenStream(ProfileMethod(kMethodOf<Stream>), recording_.Open()))) {}
  ~ServedStream() {
    if (stream_ != nullptr && recording_.completions() == 0) stream_->OnCompleted();
  }

  Stream* get() const { return stream_.get(); }
  Stream* operator->() const { return stream_.get(); }
  Stream& operator*() const { return *stream_; }
  const RecordingChannel& recording() const { return recording_; }

  void ReceiveBytes(const std::string& payload, std::int64_t call_id = 0) {
    auto envelope = Envelope(payload, call_id);
    stream_->OnNext(&envelope);
  }
  void Receive(const google::protobuf::Message& message, std::int64_t call_id = 0) {
    ReceiveBytes(message.SerializeAsString(), call_id);
  }
  void ReceiveError(const google::protobuf::Message& message, std::int64_t call_id = 0) {
    auto envelope = Envelope(message.SerializeAsString(), call_id);
    stream_->OnError(&envelope);
  }

  // Without OnCompleted().
  void Destroy() { stream_.reset(); }

 private:
  RecordingChannel recording_;
  std::unique_ptr<Stream> stream_;
};

// Checks that a test finds the registries of the Profile service's streams empty, and leaves them
// so.
class ProfileStreamsTest : public ::testing::Test {
 protected:
  ProfileStreamsTest() { CheckRegistries("before the test"); }
  ~ProfileStreamsTest() override { CheckRegistries("after the test"); }

  // For a test that leaves the pointer of a stream behind, on purpose.
  template <class Value>
  static void RemoveLeftovers(MessageRegistry<Value>& registry) {
    while (!registry.empty()) EraseEntry(registry, registry.begin());
  }

  ::rpc::ProfileRpc service_;

 private:
  static void CheckRegistries(const char* when) {
    CheckRegistry(NetworkStream::stream_map_, when);
    CheckRegistry(FileAccessStream::stream_map_, when);
    CheckRegistry(AuthenticationStream::stream_map_, when);
  }
  template <class Value>
  static void CheckRegistry(MessageRegistry<Value>& registry, const char* when) {
    EXPECT_EQ(registry.size(), 0u) << when;
    RemoveLeftovers(registry);
  }
};

}  // namespace varnic::testing

#endif  // CORE_COMMON_RPC_STREAM_PROFILE_STREAMS_TEST_SUPPORT_H_
