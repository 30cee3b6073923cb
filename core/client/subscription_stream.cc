#include "core/client/subscription_stream.h"

#include <cstdint>
#include <optional>
#include <utility>

#include "absl/strings/str_cat.h"
#include "base/logging.h"
#include "core/common/rpc/fatal.h"
#include "core/net/frame_message.h"

namespace varnic {

using ::rpc::transport::StreamMessage;

absl::Status NotSerialisedError(const google::protobuf::Descriptor& type) {
  return absl::InternalError(
      absl::StrCat("what the server sent is not a serialised ", type.full_name()));
}

SubscriptionStream::SubscriptionStream(Client& client,
                                       const google::protobuf::MethodDescriptor& method,
                                       MakePayload make_payload, OnEnvelope on_envelope,
                                       std::function<void()> on_lost, StreamListeners listeners)
    : loop_(client.loop()),
      make_payload_(make_payload),
      callbacks_(std::make_shared<const Callbacks>(
          Callbacks{std::move(on_envelope), std::move(on_lost), std::move(listeners)})),
      stream_(client, method, *this) {}

void SubscriptionStream::Subscribe(const ProfileId& key) {
  VARNIC_CHECK(loop_.IsLoopThread());
  if (keys_.insert(key.value()).second) Tell(key.value(), true);
}

void SubscriptionStream::Unsubscribe(const ProfileId& key) {
  VARNIC_CHECK(loop_.IsLoopThread());
  if (keys_.erase(key.value()) > 0) Tell(key.value(), false);
}

void SubscriptionStream::Send(const StreamMessage& envelope) {
  stream_.Send(net::FrameMessage(envelope));
}

std::string SubscriptionStream::OnOpen() {
  told_ = keys_.size();
  std::string all;
  for (const std::string& key : keys_) all += FrameControl(key, true);
  return all;
}

absl::Status SubscriptionStream::OnMessage(std::string_view message) {
  StreamMessage envelope;
  if (!envelope.ParseFromArray(message.data(), static_cast<int>(message.size()))) {
    return NotSerialisedError(*StreamMessage::descriptor());
  }
  const std::shared_ptr<const Callbacks> callbacks = callbacks_;
  const absl::Status status = callbacks->on_envelope(envelope);
  if (!status.ok()) WarnOfDropped(status);  // Otherwise the stream may be gone.
  return absl::OkStatus();
}

void SubscriptionStream::WarnOfDropped(const absl::Status& why) {
  if (!logging::ShouldCreateLogMessage(logging::LOGGING_WARNING)) return;
  const std::optional<std::uint64_t> left_out = drops_logged_.Admit();
  if (!left_out.has_value()) return;
  logging::LogMessage(__FILE__, __LINE__, logging::LOGGING_WARNING).stream()
      << "A message is dropped: " << why.message() << net::LogLimiter::More(*left_out);
}

// The server's count begins anew with the stream.
bool SubscriptionStream::IsLoss(const absl::Status& status) {
  return absl::IsUnavailable(status) || (absl::IsResourceExhausted(status) && told_ > keys_.size());
}

void SubscriptionStream::OnUp() {
  const std::shared_ptr<const Callbacks> callbacks = callbacks_;
  if (callbacks->listeners.on_up != nullptr) callbacks->listeners.on_up();
}

void SubscriptionStream::OnDown(const absl::Status& why, absl::Duration retry_in) {
  const std::shared_ptr<const Callbacks> callbacks = callbacks_;
  if (callbacks->on_lost != nullptr) callbacks->on_lost();
  if (callbacks->listeners.on_down != nullptr) callbacks->listeners.on_down(why, retry_in);
}

void SubscriptionStream::OnEnd(const absl::Status& status) {
  const std::shared_ptr<const Callbacks> callbacks = callbacks_;
  if (callbacks->on_lost != nullptr) callbacks->on_lost();
  if (callbacks->listeners.on_end != nullptr) callbacks->listeners.on_end(status);
}

void SubscriptionStream::Tell(const std::string& key, bool subscribe) {
  ++told_;
  stream_.Send(FrameControl(key, subscribe));
}

std::string SubscriptionStream::FrameControl(const std::string& key, bool subscribe) const {
  ProfileId profile_id;
  profile_id.set_value(key);
  StreamMessage envelope;
  envelope.set_payload(make_payload_(profile_id, subscribe));
  return net::FrameMessage(envelope);
}

}  // namespace varnic
