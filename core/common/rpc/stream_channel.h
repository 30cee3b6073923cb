#ifndef CORE_COMMON_RPC_STREAM_CHANNEL_H_
#define CORE_COMMON_RPC_STREAM_CHANNEL_H_

#include <memory>
#include <string_view>

namespace rpc::transport {
class StreamMessage;
}  // namespace rpc::transport

namespace varnic::net {
struct Peer;
}  // namespace varnic::net

namespace varnic {

class SharedEvent;

// The handle of one open stream on the transport. Move-only: whoever receives one, by value, owns
// its own object, and only the last owner's object stands for the stream. A moved-from channel is
// empty; every operation on an empty channel is harmless and does nothing.
//
// Destroying the last live handle of a stream that was not completed ends the stream with status
// CANCELLED, unless it is ending already. RPC thread only.
class StreamChannel {
 public:
  // The transport's end of a channel: one object for each open stream, owned by its handle.
  class Transport {
   public:
    // Ends the stream with status CANCELLED if it was not completed and is not ending already.
    virtual ~Transport() = default;
    // Queues `envelope` for the peer. False if it can no longer be delivered. An envelope that was
    // queued is never dropped while the peer is there.
    virtual bool Send(const ::rpc::transport::StreamMessage& envelope) = 0;
    // The same for an event, of which a transport may share the bytes. While one waits, a transport
    // may drop it in favour of a newer one with the same conflation key. The default puts a copy of
    // the payload into an envelope and sends that.
    virtual bool SendEvent(const SharedEvent& event);
    // Ends the stream with status OK. May destroy the transport, with everything that owns it,
    // before it returns.
    virtual void Complete() = 0;
    // Whether the peer can still receive.
    virtual bool IsPeerPresent() const = 0;
    // Who has opened the stream, also when it has ended; null if the transport does not know.
    virtual const net::Peer* peer() const { return nullptr; }
    // The role in which the server's policy lets the peer open the stream; empty without a policy.
    virtual std::string_view role() const { return {}; }
  };

  explicit StreamChannel(std::unique_ptr<Transport> transport);
  StreamChannel(StreamChannel&& other) noexcept;
  ~StreamChannel();

  // False once the channel was moved from.
  explicit operator bool() const { return transport_ != nullptr; }

  bool Send(const ::rpc::transport::StreamMessage& envelope);
  bool SendEvent(const SharedEvent& event);
  void Complete();
  bool IsPeerPresent() const;
  // Valid as long as the last live handle. Null, and empty, for an empty channel, too.
  const net::Peer* peer() const;
  std::string_view role() const;

 private:
  std::unique_ptr<Transport> transport_;
};

}  // namespace varnic

#endif  // CORE_COMMON_RPC_STREAM_CHANNEL_H_
