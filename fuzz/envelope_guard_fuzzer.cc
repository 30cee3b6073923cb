// The guard before the streams: what it lets through, a real stream survives, and no message with
// neither control nor an answer gets through.
//
// A subscription message is never freed (see event_stream.h), so one input sends only a few.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "core/common/rpc/fatal.h"
#include "core/common/rpc/message_registry.h"
#include "core/common/rpc/stream/callback_stream.h"
#include "core/common/rpc/stream/event_publisher.h"
#include "core/common/rpc/stream/event_stream.h"
#include "core/common/rpc/testing/recording_channel.h"
#include "core/server/envelope_guard.h"
#include "fuzz/fuzz_input.h"
#include "fuzz/quiet_logs.h"
#include "rpc/identifiers.pb.h"
#include "rpc/profile/profile.pb.h"
#include "rpc/profile/profile.rpc.h"
#include "rpc/transport/stream_message.pb.h"

namespace varnic {
namespace {

constexpr int kMaxMessages = 16;
constexpr int kCalls = 4;

template <class Message>
bool ParseAs(Message& message, std::string_view payload) {
  return message.ParseFromArray(payload.data(), static_cast<int>(payload.size()));
}

// What the guard lets through as no error is control or an answer, and is what it says that it is.
template <class T>
void CheckMayPass(std::string_view payload, const EnvelopeGuard::Content& content) {
  T message;
  VARNIC_CHECK(ParseAs(message, payload));
  VARNIC_CHECK(message.kind_case() == (content.is_subscription ? T::kSubscribe : T::kResponse));
  VARNIC_CHECK(message.call_id() == content.call_id);
  VARNIC_CHECK(message.error().empty());
}
template <>
void CheckMayPass<::rpc::EventSubscription>(std::string_view payload,
                                            const EnvelopeGuard::Content& /*content*/) {
  ::rpc::EventSubscription message;
  VARNIC_CHECK(ParseAs(message, payload));
}

// One stream, fed as a server feeds it.
template <class Stream, class Message>
class GuardedStream {
 public:
  explicit GuardedStream(const char* method)
      : method_(*::rpc::ProfileRpc::descriptor()->FindMethodByName(method)),
        guard_(method_, Message::default_instance()),
        stream_(static_cast<Stream*>(service_.OpenStream(&method_, recording_.Open()))) {}
  ~GuardedStream() {
    stream_->OnCompleted();
    VARNIC_CHECK(recording_.completions() == 1);
    stream_.reset();
    VARNIC_CHECK(Stream::stream_map_.empty());
  }
  GuardedStream(const GuardedStream&) = delete;
  GuardedStream& operator=(const GuardedStream&) = delete;

  Stream& operator*() { return *stream_; }

  void Receive(std::string_view payload, std::int64_t call_id, bool is_error) {
    EnvelopeGuard::Content content;
    const absl::Status status = guard_.Inspect(payload, is_error, content);
    if (!status.ok()) {
      VARNIC_CHECK(status.code() == absl::StatusCode::kInvalidArgument);
      return;
    }
    ::rpc::transport::StreamMessage envelope;
    envelope.set_payload(payload.data(), payload.size());
    envelope.set_call_id(call_id);
    if (is_error || content.has_error) return stream_->OnError(&envelope);
    CheckMayPass<Message>(payload, content);
    stream_->OnNext(&envelope);
  }

 private:
  testing::RecordingChannel recording_;
  ::rpc::ProfileRpc service_;
  const google::protobuf::MethodDescriptor& method_;
  EnvelopeGuard guard_;
  std::unique_ptr<Stream> stream_;
};

template <class Guarded>
void ReceiveAll(fuzz::FuzzInput& input, Guarded& stream) {
  for (int i = 0; i < kMaxMessages && !input.empty(); ++i) {
    const auto flags = input.TakeByte();
    stream.Receive(input.TakePiece(), flags >> 1, (flags & 1) != 0);
  }
}

void CheckEvents(fuzz::FuzzInput& input) {
  EventPublisher<::rpc::NetworkChanged> publisher;
  GuardedStream<EventStream<::rpc::NetworkChanged>, ::rpc::EventSubscription> stream(
      "WhenNetworkChanged");
  ReceiveAll(input, stream);
  publisher.PublishToEveryKey({});
}

// With questions that wait for the default profile: each ends exactly once.
template <class T>
void CheckCallbacks(fuzz::FuzzInput& input, const char* method) {
  int ends[kCalls] = {};
  {
    GuardedStream<CallbackStream<T>, T> stream(method);
    auto& calls = (*stream).pending_calls_[CloneKey(ProfileId())];
    for (int id = 0; id < kCalls; ++id) {
      calls[id] = {[&ends, id](const T&) { ++ends[id]; }, [&ends, id](int) { ++ends[id]; }};
    }
    ReceiveAll(input, stream);
  }
  for (const int count : ends) VARNIC_CHECK(count == 1);
}

}  // namespace
}  // namespace varnic

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  varnic::fuzz::QuietLogs();
  varnic::fuzz::FuzzInput input(data, size);
  switch (input.TakeBelow(3)) {
    case 0:
      varnic::CheckEvents(input);
      break;
    case 1:
      varnic::CheckCallbacks<rpc::CanAccessFile>(input, "OnCanAccessFile");
      break;
    default:
      varnic::CheckCallbacks<rpc::Authenticate>(input, "OnAuthenticate");
  }
  return 0;
}
