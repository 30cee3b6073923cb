#ifndef CORE_SERVER_ENVELOPE_STOCK_H_
#define CORE_SERVER_ENVELOPE_STOCK_H_

#include <google/protobuf/message.h>
#include <google/protobuf/unknown_field_set.h>

#include <cstddef>
#include <memory>
#include <utility>

#include "core/net/block_pool.h"
#include "rpc/transport/stream_message.pb.h"

namespace varnic {

// Keeps one envelope for the next message of any stream, with the memory of its payload, unless
// that is large. Under AddressSanitizer it keeps none, as MessageStock. One thread only.
class EnvelopeStock {
 public:
  using Envelope = ::rpc::transport::StreamMessage;

  // An empty one.
  std::unique_ptr<Envelope> Take() {
    return envelope_ != nullptr ? std::move(envelope_) : std::make_unique<Envelope>();
  }
  // Gives back what Take() gave.
  void Give(std::unique_ptr<Envelope> envelope) {
    if (!net::BlockPool::Keeps() || envelope_ != nullptr) return;
    if (envelope->payload().capacity() > kMaxPayload) return;
    // The envelope would keep some of their memory.
    static const google::protobuf::Reflection* const reflection = Envelope::GetReflection();
    if (!reflection->GetUnknownFields(*envelope).empty()) return;
    envelope->Clear();
    envelope_ = std::move(envelope);
  }

 private:
  static constexpr std::size_t kMaxPayload = 1 << 10;

  std::unique_ptr<Envelope> envelope_;  // Null while it is used.
};

}  // namespace varnic

#endif  // CORE_SERVER_ENVELOPE_STOCK_H_
