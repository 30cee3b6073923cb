#include "core/common/rpc/stream_channel.h"

#include <utility>

#include "core/common/rpc/shared_event.h"
#include "rpc/transport/stream_message.pb.h"

namespace varnic {

bool StreamChannel::Transport::SendEvent(const SharedEvent& event) {
  ::rpc::transport::StreamMessage envelope;
  envelope.set_payload(event.payload());
  return Send(envelope);
}

StreamChannel::StreamChannel(std::unique_ptr<Transport> transport)
    : transport_(std::move(transport)) {}
StreamChannel::StreamChannel(StreamChannel&& other) noexcept = default;
StreamChannel::~StreamChannel() = default;

bool StreamChannel::Send(const ::rpc::transport::StreamMessage& envelope) {
  return transport_ != nullptr && transport_->Send(envelope);
}

bool StreamChannel::SendEvent(const SharedEvent& event) {
  return transport_ != nullptr && transport_->SendEvent(event);
}

void StreamChannel::Complete() {
  if (transport_ != nullptr) transport_->Complete();
}

bool StreamChannel::IsPeerPresent() const {
  return transport_ != nullptr && transport_->IsPeerPresent();
}

const net::Peer* StreamChannel::peer() const {
  return transport_ == nullptr ? nullptr : transport_->peer();
}

std::string_view StreamChannel::role() const {
  return transport_ == nullptr ? std::string_view() : transport_->role();
}

}  // namespace varnic
