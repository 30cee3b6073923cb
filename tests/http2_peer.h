#ifndef TESTS_HTTP2_PEER_H_
#define TESTS_HTTP2_PEER_H_

#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/net/event_loop.h"
#include "core/net/http2_connection.h"
#include "core/net/socket_stream.h"

namespace varnic {

// A client that speaks HTTP/2 but not necessarily gRPC: sends any request, and shows the whole
// answer. One connection, one exchange at a time, on a loop of its own.
class Http2Peer : private net::Http2Connection::Visitor {
 public:
  using Headers = std::vector<net::HeaderField>;

  struct Answer {
    std::map<std::string, std::string> headers;  // Trailers among them.
    std::string data;
    bool closed = false;
    net::Http2Error error = net::Http2Error::kNoError;

    // Empty if there is none of that name.
    std::string Header(const std::string& name) const;
  };

  explicit Http2Peer(const std::string& address);
  ~Http2Peer() override;

  // What a gRPC client sends for a call of `path`.
  static Headers GrpcHeaders(std::string_view path);

  // Sends a request whose body is `body`, and returns what came back until its stream was closed.
  Answer Exchange(const Headers& headers, const std::string& body);

 private:
  class Stream;

  std::unique_ptr<net::Http2Session::Handler> OnNewStream(net::StreamId stream_id) override;
  void OnGoaway() override {}
  void OnConnectionClosed(const absl::Status& status) override;

  net::EventLoop loop_;
  bool connected_ = false;
  std::unique_ptr<net::Connector> connector_;
  std::unique_ptr<net::Http2Connection> connection_;
};

// One gRPC message: the prefix, and `bytes`.
std::string Framed(const std::string& bytes);

}  // namespace varnic

#endif  // TESTS_HTTP2_PEER_H_
