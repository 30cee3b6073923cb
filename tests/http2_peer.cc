#include "tests/http2_peer.h"

#include <gtest/gtest.h>

#include <utility>

#include "core/net/address.h"
#include "core/net/message_framing.h"

namespace varnic {

class Http2Peer::Stream : public net::Http2Session::Handler {
 public:
  explicit Stream(Answer& answer) : answer_(answer) {}

 private:
  void OnHeaders(const net::HeaderList& headers) override {
    for (std::size_t i = 0; i < headers.size(); ++i) {
      answer_.headers[std::string(headers[i].name)] = std::string(headers[i].value);
    }
  }
  void OnData(std::string_view chunk) override { answer_.data.append(chunk); }
  void OnRemoteEnd() override {}
  void OnClosed(net::Http2Error error) override {
    answer_.error = error;
    answer_.closed = true;
  }

  Answer& answer_;
};

std::string Http2Peer::Answer::Header(const std::string& name) const {
  const auto found = headers.find(name);
  return found == headers.end() ? "" : found->second;
}

Http2Peer::Http2Peer(const std::string& address) {
  const auto target = net::Address::Parse(address);
  EXPECT_TRUE(target.ok()) << target.status();
  connector_ = net::Connector::Connect(
      loop_, *target, [this](absl::StatusOr<std::unique_ptr<net::ByteStream>> stream) {
        connected_ = true;
        ASSERT_TRUE(stream.ok()) << stream.status();
        net::Http2Connection::Visitor& visitor = *this;
        connection_ = std::make_unique<net::Http2Connection>(loop_, *std::move(stream),
                                                             net::Http2Session::Role::kClient,
                                                             net::Http2Options(), visitor);
      });
  loop_.RunUntil([this] { return connected_; });
}

Http2Peer::~Http2Peer() = default;

Http2Peer::Headers Http2Peer::GrpcHeaders(std::string_view path) {
  return {{":method", "POST"},         {":scheme", "http"}, {":path", path},
          {":authority", "localhost"}, {"te", "trailers"},  {"content-type", "application/grpc"}};
}

Http2Peer::Answer Http2Peer::Exchange(const Headers& headers, const std::string& body) {
  Answer answer;
  net::Http2Session& session = connection_->session();
  const net::StreamId stream_id = session.OpenStream(headers, std::make_unique<Stream>(answer));
  EXPECT_GT(stream_id, 0);
  session.SendData(stream_id, body, /*end_stream=*/true);
  loop_.RunUntil([&] { return answer.closed; });
  return answer;
}

std::unique_ptr<net::Http2Session::Handler> Http2Peer::OnNewStream(net::StreamId /*stream_id*/) {
  return nullptr;
}

void Http2Peer::OnConnectionClosed(const absl::Status& /*status*/) {}

std::string Framed(const std::string& bytes) {
  const net::MessagePrefix prefix = net::MakeMessagePrefix(static_cast<uint32_t>(bytes.size()));
  return std::string(prefix.data(), prefix.size()) + bytes;
}

}  // namespace varnic
