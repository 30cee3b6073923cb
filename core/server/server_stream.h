#ifndef CORE_SERVER_SERVER_STREAM_H_
#define CORE_SERVER_SERVER_STREAM_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "absl/status/status.h"
#include "core/common/rpc/abstract_stream.h"
#include "core/common/rpc/service.h"
#include "core/common/rpc/shared_event.h"
#include "core/net/event_loop.h"
#include "core/net/grpc_server_connection.h"
#include "core/net/lifetime.h"
#include "core/server/envelope_guard.h"
#include "core/server/envelope_stock.h"
#include "core/server/outbound_queue.h"
#include "core/server/service_table.h"
#include "core/server/stream_framing.h"
#include "core/server/subscription_bounds.h"

namespace varnic {

struct StreamLimits {
  SubscriptionLimits subscriptions;
  OutboundLimits outbound;
};

// One open stream of a client: owns the service's stream object, feeds it with what the guard lets
// through, and is the far end of its channel.
//
// The stream object gets OnCompleted() exactly once, never from inside another of its operations,
// and is destroyed when nothing of it is on the stack: after a half-close, a reset, the loss of the
// connection, a breach of a limit, or its own Complete(), whatever comes first and wherever it
// happens. RPC thread only.
class ServerStream final : private net::GrpcServerCall::Visitor {
 public:
  class Owner {
   public:
    virtual ~Owner() = default;
    // The stream object has had its OnCompleted(). To be destroyed in this call.
    virtual void OnStreamEnded(ServerStream& stream) = 0;
    // For counting: an event was replaced by a newer one; a stream ends because its client does not
    // read.
    virtual void OnEventConflated() = 0;
    virtual void OnSlowReader() = 0;
  };

  // Takes over `call`, which the peer makes in `role`, opens the stream of `method`, and answers
  // the client with the headers that say so; or with UNIMPLEMENTED, if the service opens none. The
  // loop, the guard, which is null for a plain stream, the envelopes and the owner outlive this.
  ServerStream(net::EventLoop& loop, const ServiceTable::Method& method, EnvelopeGuard* guard,
               EnvelopeStock& envelopes, StreamFraming framing, const StreamLimits& limits,
               net::GrpcServerCall& call, std::string role, Owner& owner);
  // Only after OnStreamEnded(), or if the stream was never open.
  ~ServerStream() override;

  // Whether there is a stream object.
  bool is_open() const { return stream_ != nullptr; }

  std::size_t subscriptions() const { return bounds_.subscriptions(); }
  // What waits for the client to read.
  const OutboundQueue& outbound() const { return outbound_; }

  // Ends the stream with `status`, at once or when the operation that is running has returned.
  void End(const absl::Status& status);

 private:
  class ChannelEnd;
  class Envelope;
  class Operation;

  void OnMessage(std::string_view message) override;
  void OnHalfClose() override;
  void OnCancelled() override;
  void OnStalled() override;
  void OnRoom() override;

  absl::Status Decode(std::string_view message, ::rpc::transport::StreamMessage& envelope,
                      bool& is_error);
  absl::Status CheckBounds(const EnvelopeGuard::Content& content, std::size_t bytes);

  // From the stream object, through its channel.
  bool Send(const ::rpc::transport::StreamMessage& envelope);
  bool SendEvent(const SharedEvent& event);
  void Complete();
  void OnChannelDropped();
  // Ends the call with `final_status_`, behind what waits if that is OK.
  void FinishCall();

  // What a message takes that is not worth memory of its own. Uninitialised.
  using SmallBuffer = std::array<char, 256>;

  bool MaySendAtOnce() const;
  // Only if it may. False if there is nothing.
  bool SendSmall(std::string_view framed);
  // False, with `message` as it was, if it has to wait.
  bool SendAtOnce(OutboundMessage& message);
  bool Accept(OutboundQueue::Outcome outcome);
  void SendWaiting();
  void SendOldest();

  // The same as End(), but never inside the caller's call: a host that writes to a stream does not
  // expect the stream to leave the registries meanwhile.
  void EndLater(const absl::Status& status);
  void DeliverCompleted();

  net::EventLoop& loop_;
  EnvelopeGuard* const guard_;
  const StreamFraming framing_;
  const int call_id_field_;
  EnvelopeStock& envelopes_;
  Owner& owner_;
  net::GrpcServerCall* call_;  // Null once nobody listens, or the call was finished.
  ChannelEnd* channel_end_;    // Null once the channel is gone, which may outlive this.
  SubscriptionBounds bounds_;
  OutboundQueue outbound_;
  int operations_ = 0;  // Of the stream object, that are on the stack.
  bool ending_ = false;
  bool completed_ = false;
  absl::Status final_status_;
  std::unique_ptr<AbstractStream> stream_;
  net::Lifetime lifetime_;
};

}  // namespace varnic

#endif  // CORE_SERVER_SERVER_STREAM_H_
