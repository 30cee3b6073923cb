#include "core/common/rpc/stream_channel.h"

#include <utility>

namespace varnic {

StreamChannel::StreamChannel(std::unique_ptr<Transport> transport)
    : transport_(std::move(transport)) {}
StreamChannel::StreamChannel(StreamChannel&& other) noexcept = default;
StreamChannel::~StreamChannel() = default;

bool StreamChannel::Send(const ::rpc::transport::StreamMessage& envelope) {
  return transport_ != nullptr && transport_->Send(envelope);
}

void StreamChannel::Complete() {
  if (transport_ != nullptr) transport_->Complete();
}

bool StreamChannel::IsPeerPresent() const {
  return transport_ != nullptr && transport_->IsPeerPresent();
}

}  // namespace varnic
