#ifndef TESTS_STREAM_PEER_H_
#define TESTS_STREAM_PEER_H_

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "absl/status/status.h"
#include "core/net/event_loop.h"
#include "core/net/grpc_client_connection.h"
#include "core/net/socket_stream.h"
#include "core/server/stream_framing.h"

namespace varnic {

// A client with one connection, on a loop of its own, on which a test opens streams.
class StreamPeer : private net::GrpcClientConnection::Visitor {
 public:
  // One stream that the client has open. Waiting for something runs the peer's loop.
  class Stream : private net::GrpcClientCall::Visitor {
   public:
    Stream(StreamPeer& peer, const std::string& path, StreamFraming framing);
    ~Stream() override;

    // Sends one message.
    void Send(const std::string& bytes);
    void HalfClose();
    void Reset();

    // The next message that the host sent; empty if the stream ended instead.
    std::string Receive();
    // Waits for the end.
    absl::Status Finish();

   private:
    void OnMessage(std::string_view message) override;
    void OnDone(const absl::Status& status) override;

    StreamPeer& peer_;
    net::GrpcClientCall* call_ = nullptr;  // Null once it has ended.
    std::vector<std::string> received_;
    std::optional<absl::Status> status_;
  };

  // With a window of 0 bytes for each stream, the peer does not let the host send a message.
  explicit StreamPeer(const std::string& address, const net::GrpcClientOptions& options = {});
  ~StreamPeer() override;

  // Opens a stream of a method of rpc.Profile.
  std::unique_ptr<Stream> Open(const std::string& method,
                               StreamFraming framing = StreamFraming::kTyped);
  // The same of any service: "/rpc.Profile/Path".
  std::unique_ptr<Stream> OpenPath(const std::string& path);
  // Puts on the wire what was sent so far.
  void Pump() { loop_.RunPending(); }
  // Closes the connection, with whatever is open on it.
  void Disconnect() { connection_ = nullptr; }

 private:
  void OnGoaway(net::GrpcClientConnection& connection) override;
  void OnConnectionClosed(net::GrpcClientConnection& connection,
                          const absl::Status& status) override;

  net::EventLoop loop_;
  std::unique_ptr<net::Connector> connector_;
  std::unique_ptr<net::GrpcClientConnection> connection_;
};

// The messages with which a client asks for the events of a profile, or for no more of them; and
// with which it begins to answer the questions about its files.
std::string Subscription(const std::string& key, bool subscribe = true);
std::string FileAnswerer(const std::string& key);

}  // namespace varnic

#endif  // TESTS_STREAM_PEER_H_
