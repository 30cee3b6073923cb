#ifndef CORE_CLIENT_RESUMING_STREAM_H_
#define CORE_CLIENT_RESUMING_STREAM_H_

#include <google/protobuf/descriptor.h>

#include <optional>
#include <string>
#include <string_view>

#include "absl/status/status.h"
#include "absl/time/time.h"
#include "core/client/attempt_pacer.h"
#include "core/client/client.h"
#include "core/client/connection_keeper.h"
#include "core/net/event_loop.h"
#include "core/net/grpc_client_connection.h"
#include "core/net/lifetime.h"

namespace varnic {

// One stream in the envelope framing (docs/wire.md), which is opened again whenever it is lost: one
// gRPC call after the other. Knows nothing of keys or questions.
//
// Opens in the loop's next turn. Lives on the client's loop; the client outlives it. Its visitor
// may destroy it, but for OnOpen(); that ends the stream without a word.
class ResumingStream : private ConnectionKeeper::Waiter, private net::GrpcClientCall::Visitor {
 public:
  // Any number of times OnOpen, OnUp, OnMessage and OnDown; then OnEnd, or nothing.
  class Visitor {
   public:
    virtual ~Visitor() = default;
    // The stream is being opened: what is to be sent first, framed by FrameMessage(), one message
    // behind the other.
    virtual std::string OnOpen() = 0;
    // The server has answered, and what OnOpen() gave is on its way before all that is sent later.
    virtual void OnUp() = 0;
    // One message, valid for the call. An error ends the stream with it: OnEnd follows, so the
    // stream must still be there.
    virtual absl::Status OnMessage(std::string_view message) = 0;
    // Whether a stream that ended so is lost, and to be opened again.
    virtual bool IsLoss(const absl::Status& status) { return absl::IsUnavailable(status); }
    // The stream was lost, or could not be opened; the next attempt is in `retry_in`.
    virtual void OnDown(const absl::Status& why, absl::Duration retry_in) = 0;
    // It is over, see StreamListeners. The last call.
    virtual void OnEnd(const absl::Status& status) = 0;
  };

  ResumingStream(Client& client, const google::protobuf::MethodDescriptor& method,
                 Visitor& visitor);
  ResumingStream(const ResumingStream&) = delete;
  ResumingStream& operator=(const ResumingStream&) = delete;
  ~ResumingStream() override;

  // Sends a message that was framed by FrameMessage(); drops it while the stream is not open. Ends
  // the stream, later, if too much waits for the server; see ClientOptions.
  void Send(std::string framed);

 private:
  void Open(ConnectionKeeper::Patience patience);
  // False if `connection` takes no more calls.
  bool OpenOn(net::GrpcClientConnection& connection);
  void MaybeUp();
  void CancelCall();

  void OnConnected(net::GrpcClientConnection& connection) override;
  void OnConnectFailed(const absl::Status& why, std::optional<absl::Duration> retry_in) override;
  void OnHeaders() override;
  void OnSendQueueEmpty() override;
  void OnMessage(std::string_view message) override;
  void OnDone(const absl::Status& status) override;

  Client& client_;
  ConnectionKeeper& keeper_;
  const std::string path_;
  ResumingStream::Visitor& visitor_;
  AttemptPacer pacer_;
  net::Timer retry_timer_;
  ConnectionKeeper::Ticket ticket_ = 0;  // Of its last wait for a connection.
  net::GrpcClientCall* call_ = nullptr;  // While it is open, or being opened.
  bool answered_ = false;                // The call: its headers have come.
  bool up_ = false;                      // The visitor knows.
  net::Lifetime lifetime_;
};

}  // namespace varnic

#endif  // CORE_CLIENT_RESUMING_STREAM_H_
