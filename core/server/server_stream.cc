#include "core/server/server_stream.h"

#include <utility>

#include "core/common/rpc/fatal.h"
#include "core/common/rpc/stream_kind.h"
#include "rpc/transport/stream_message.pb.h"

namespace varnic {

// The transport's end of the stream's channel; owned by the channel, inside the stream object or
// wherever that has moved it.
class ServerStream::ChannelEnd : public StreamChannel::Transport {
 public:
  ChannelEnd(ServerStream& stream, std::shared_ptr<const net::Peer> peer, std::string role)
      : stream_(&stream), peer_(std::move(peer)), role_(std::move(role)) {}
  ~ChannelEnd() override {
    if (stream_ != nullptr) stream_->OnChannelDropped();
  }

  // The stream is gone.
  void Detach() { stream_ = nullptr; }

  bool Send(const ::rpc::transport::StreamMessage& envelope) override {
    return stream_ != nullptr && stream_->Send(envelope);
  }
  bool SendEvent(const SharedEvent& event) override {
    return stream_ != nullptr && stream_->SendEvent(event);
  }
  void Complete() override {
    if (stream_ != nullptr) stream_->Complete();
  }
  bool IsPeerPresent() const override {
    return stream_ != nullptr && stream_->call_ != nullptr && !stream_->ending_;
  }
  const net::Peer* peer() const override { return peer_.get(); }
  std::string_view role() const override { return role_; }

 private:
  ServerStream* stream_;
  const std::shared_ptr<const net::Peer> peer_;
  const std::string role_;
};

// The envelope of one message. Outlives the stream if the message ends it.
class ServerStream::Envelope {
 public:
  // NOLINTNEXTLINE(clang-analyzer-cplusplus.NewDeleteLeaks): goes back into the stock.
  explicit Envelope(EnvelopeStock& stock) : stock_(stock), message_(stock.Take()) {}
  Envelope(const Envelope&) = delete;
  Envelope& operator=(const Envelope&) = delete;
  ~Envelope() { stock_.Give(std::move(message_)); }

  ::rpc::transport::StreamMessage& message() { return *message_; }

 private:
  EnvelopeStock& stock_;
  std::unique_ptr<::rpc::transport::StreamMessage> message_;
};

// An operation of the stream object, while it is on the stack. What ends the stream meanwhile takes
// effect when the last one has returned.
class ServerStream::Operation {
 public:
  explicit Operation(ServerStream& stream) : stream_(stream) { ++stream_.operations_; }
  ~Operation() {
    if (--stream_.operations_ == 0 && stream_.ending_) stream_.DeliverCompleted();
  }

 private:
  ServerStream& stream_;
};

ServerStream::ServerStream(net::EventLoop& loop, const ServiceTable::Method& method,
                           EnvelopeGuard* guard, EnvelopeStock& envelopes, StreamFraming framing,
                           const StreamLimits& limits, net::GrpcServerCall& call, std::string role,
                           Owner& owner)
    : loop_(loop),
      guard_(guard),
      framing_(framing),
      call_id_field_(guard == nullptr ? 0 : CallIdField(*method.descriptor->output_type())),
      envelopes_(envelopes),
      owner_(owner),
      call_(&call),
      bounds_(limits.subscriptions),
      outbound_(limits.outbound) {
  call.Accept(*this);
  auto channel_end = std::make_unique<ChannelEnd>(*this, call.peer(), std::move(role));
  channel_end_ = channel_end.get();
  stream_.reset(
      method.service->OpenStream(method.descriptor, StreamChannel(std::move(channel_end))));
  if (stream_ != nullptr) {
    call.SendHeaders();
  } else {
    final_status_ = absl::UnimplementedError("The host serves no such stream");
    FinishCall();
  }
}

ServerStream::~ServerStream() {
  VARNIC_CHECK(!is_open());
  if (channel_end_ != nullptr) channel_end_->Detach();
}

void ServerStream::OnMessage(std::string_view message) {
  if (ending_) return;
  Envelope envelope(envelopes_);
  bool is_error = false;
  const absl::Status status = Decode(message, envelope.message(), is_error);
  if (!status.ok()) return End(status);
  const Operation operation(*this);
  if (is_error) {
    stream_->OnError(&envelope.message());
  } else {
    stream_->OnNext(&envelope.message());
  }
}

absl::Status ServerStream::Decode(std::string_view message,
                                  ::rpc::transport::StreamMessage& envelope, bool& is_error) {
  // As it came, where there is no envelope: what has just been copied is not at hand at once.
  std::string_view payload = message;
  if (framing_ == StreamFraming::kEnvelope) {
    if (!envelope.ParseFromArray(message.data(), static_cast<int>(message.size()))) {
      return absl::InvalidArgumentError(
          "A message on the stream is not a serialised rpc.transport.StreamMessage");
    }
    is_error = envelope.kind() == ::rpc::transport::StreamMessage::ERROR;
    payload = envelope.payload();
  } else {
    envelope.mutable_payload()->assign(message);  // Into the memory that is there.
  }
  if (guard_ == nullptr) return absl::OkStatus();
  EnvelopeGuard::Content content;
  const absl::Status status = guard_->Inspect(payload, is_error, content);
  if (!status.ok()) return status;
  if (framing_ == StreamFraming::kTyped) envelope.set_call_id(content.call_id);
  is_error = is_error || content.has_error;
  return CheckBounds(content, payload.size());
}

absl::Status ServerStream::CheckBounds(const EnvelopeGuard::Content& content, std::size_t bytes) {
  using Control = EnvelopeGuard::Content::Control;
  if (content.is_subscription) {
    if (absl::Status status = bounds_.OnMessage(bytes); !status.ok()) return status;
  }
  if (content.control == Control::kSubscribe) return bounds_.OnSubscribe(content.key);
  if (content.control == Control::kUnsubscribe) bounds_.OnUnsubscribe(content.key);
  return absl::OkStatus();
}

void ServerStream::OnHalfClose() {
  End(absl::OkStatus());
}

void ServerStream::OnCancelled() {
  call_ = nullptr;
  End(absl::OkStatus());
}

void ServerStream::OnStalled() {
  owner_.OnSlowReader();
  OnCancelled();
}

void ServerStream::OnRoom() {
  SendWaiting();
}

bool ServerStream::Send(const ::rpc::transport::StreamMessage& envelope) {
  if (call_ == nullptr || ending_) return false;
  SmallBuffer buffer;
  if (MaySendAtOnce() &&
      SendSmall(FrameEnvelopeIn(absl::MakeSpan(buffer), framing_, envelope, call_id_field_))) {
    return true;
  }
  OutboundMessage message{FrameEnvelope(framing_, envelope, call_id_field_), nullptr};
  if (SendAtOnce(message)) return true;
  return Accept(outbound_.Push(std::move(message)));
}

bool ServerStream::SendEvent(const SharedEvent& event) {
  if (call_ == nullptr || ending_) return false;
  SmallBuffer buffer;
  if (MaySendAtOnce() &&
      SendSmall(FrameEventIn(absl::MakeSpan(buffer), framing_, event.payload()))) {
    return true;
  }
  OutboundMessage message{FrameEventPrefix(framing_, event.payload().size()),
                          event.shared_payload()};
  if (SendAtOnce(message)) return true;
  return Accept(outbound_.PushEvent(std::move(message), event.conflation_key()));
}

// What finds nothing waiting need not wait itself: the queue is for slow readers alone.
bool ServerStream::MaySendAtOnce() const {
  return outbound_.empty() && call_->HasRoom();
}

bool ServerStream::SendSmall(std::string_view framed) {
  if (framed.empty()) return false;
  call_->SendCopy(framed);
  return true;
}

bool ServerStream::SendAtOnce(OutboundMessage& message) {
  if (!MaySendAtOnce()) return false;
  call_->Send(std::move(message.head), std::move(message.shared));
  return true;
}

bool ServerStream::Accept(OutboundQueue::Outcome outcome) {
  if (outcome == OutboundQueue::Outcome::kOverflow) {
    // A status behind what waits would wait as well; clients make RESOURCE_EXHAUSTED of this reset.
    std::exchange(call_, nullptr)->Reset(net::Http2Error::kEnhanceYourCalm);
    owner_.OnSlowReader();
    EndLater(absl::OkStatus());
    return false;
  }
  if (outcome == OutboundQueue::Outcome::kConflated) owner_.OnEventConflated();
  SendWaiting();
  return true;
}

void ServerStream::SendWaiting() {
  while (call_ != nullptr && !outbound_.empty() && call_->HasRoom()) SendOldest();
}

void ServerStream::SendOldest() {
  OutboundMessage message = outbound_.Pop();
  call_->Send(std::move(message.head), std::move(message.shared));
}

void ServerStream::Complete() {
  FinishCall();
  if (!completed_) EndLater(absl::OkStatus());
}

void ServerStream::OnChannelDropped() {
  channel_end_ = nullptr;
  EndLater(absl::CancelledError("The host has dropped the stream"));
}

void ServerStream::FinishCall() {
  if (call_ == nullptr) return;
  // What was sent before the end is sent, however slow the reader: it is bounded.
  while (final_status_.ok() && !outbound_.empty()) SendOldest();
  std::exchange(call_, nullptr)->Finish(final_status_);
}

void ServerStream::End(const absl::Status& status) {
  if (!std::exchange(ending_, true)) final_status_ = status;
  if (operations_ == 0) DeliverCompleted();
}

void ServerStream::EndLater(const absl::Status& status) {
  if (std::exchange(ending_, true)) return;
  final_status_ = status;
  loop_.Post(lifetime_.Guard([this] {
    if (operations_ == 0) DeliverCompleted();
  }));
}

void ServerStream::DeliverCompleted() {
  if (std::exchange(completed_, true)) return;
  stream_->OnCompleted();
  stream_ = nullptr;
  FinishCall();  // For a stream object that has left this to its end.
  owner_.OnStreamEnded(*this);
}

}  // namespace varnic
