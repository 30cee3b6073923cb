#ifndef CORE_COMMON_RPC_ABSTRACT_STREAM_H_
#define CORE_COMMON_RPC_ABSTRACT_STREAM_H_

#include "core/common/rpc/stream_channel.h"

namespace rpc::transport {
class StreamMessage;
}  // namespace rpc::transport

namespace varnic {

// The server's side of one open stream. Holds the stream's channel for the stream's life.
//
// Made by Service::OpenStream() and owned by its caller, which calls, one at a time and on the RPC
// thread: OnNext() and OnError() any number of times, OnCompleted() once when the channel has
// ended, and then the destructor. A stream that is destroyed without OnCompleted() leaves pointers
// to itself in the registries of its class.
//
// A stream is live from its construction until it completes or is destroyed.
class AbstractStream {
 public:
  explicit AbstractStream(StreamChannel channel);
  AbstractStream(const AbstractStream&) = delete;
  AbstractStream& operator=(const AbstractStream&) = delete;
  virtual ~AbstractStream();

  // One envelope from the client, lent for the call.
  virtual void OnNext(::rpc::transport::StreamMessage* message) = 0;
  // The client reports an error, with an envelope, lent for the call. The stream stays open.
  virtual void OnError(::rpc::transport::StreamMessage* message) = 0;
  // The channel has ended.
  virtual void OnCompleted() = 0;

  // Tells the transport that this stream has finished with its channel. The transport may destroy
  // the stream before this returns: it is the last thing that OnCompleted() does.
  void Complete();

  // For the host's side, which writes to the client here.
  StreamChannel& channel() { return channel_; }

  // Told, from its construction to its destruction, of every stream that ends.
  class EndObserver;

  // Whether a stream that has not ended stands at `stream`, which may point to nothing. It may be
  // another stream than the one that stood there before.
  static bool IsLive(const AbstractStream* stream);

 private:
  void MarkEnded();

  StreamChannel channel_;
  bool ended_ = false;
};

// For the host's side, whose registries would keep the pointers of streams that are gone. RPC
// thread only, as the streams are.
class AbstractStream::EndObserver {
 public:
  EndObserver(const EndObserver&) = delete;
  EndObserver& operator=(const EndObserver&) = delete;

  // `stream` has completed, or is being destroyed without having completed; once for each stream,
  // before its channel is completed and before its memory can be used again. Only the pointer may
  // be used. Must not run anybody else's code, nor make or destroy streams or observers.
  virtual void OnStreamEnded(const AbstractStream* stream) = 0;

 protected:
  EndObserver();
  virtual ~EndObserver();
};

}  // namespace varnic

#endif  // CORE_COMMON_RPC_ABSTRACT_STREAM_H_
