// A client's whole connection against a server that sends whatever the input says: raw bytes, or a
// script of what servers do. Every call ends exactly once, and what the client says is bounded.

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "absl/time/time.h"
#include "core/common/rpc/fatal.h"
#include "core/net/event_loop.h"
#include "core/net/grpc_client_connection.h"
#include "core/net/message_framing.h"
#include "core/net/testing/fake_byte_stream.h"
#include "core/net/testing/raw_http2_peer.h"
#include "fuzz/fuzz_input.h"

namespace varnic::fuzz {
namespace {

using net::testing::RawHttp2Peer;

constexpr int kMaxSteps = 200;
constexpr std::size_t kCalls = 3;
constexpr std::size_t kMaxMessageBytes = 1 << 12;
constexpr std::size_t kFrameHeader = 9;
// The greeting and the calls; and what a frame of the server may make the client say.
constexpr std::size_t kOutputAnyway = 4 << 10;
constexpr std::size_t kOutputPerFrame = 512;

std::string Framed(std::string_view message) {
  const auto prefix = net::MakeMessagePrefix(static_cast<uint32_t>(message.size()));
  return std::string(prefix.data(), prefix.size()).append(message);
}

// One call, until its end; may cancel itself when a message comes.
class FuzzedCall final : public net::GrpcClientCall::Visitor {
 public:
  void Start(net::GrpcClientConnection& connection) {
    call_ = connection.StartCall("/rpc.Profile/Path", absl::InfiniteDuration(), *this);
    VARNIC_CHECK(call_ != nullptr);
    call_->Send(Framed("question"), /*half_close=*/true);
  }
  void CancelAtMessage() { cancels_at_message_ = true; }
  void Cancel() {
    if (call_ != nullptr) std::exchange(call_, nullptr)->Cancel();
  }
  bool open() const { return call_ != nullptr; }

 private:
  void OnMessage(std::string_view message) override {
    VARNIC_CHECK(call_ != nullptr);
    VARNIC_CHECK(message.size() <= kMaxMessageBytes);
    if (cancels_at_message_) Cancel();
  }
  void OnDone(const absl::Status& /*status*/) override {
    VARNIC_CHECK(call_ != nullptr);
    call_ = nullptr;
  }

  net::GrpcClientCall* call_ = nullptr;
  bool cancels_at_message_ = false;
};

class FuzzedClient final : private net::GrpcClientConnection::Visitor {
 public:
  FuzzedClient() {
    net::GrpcClientOptions options;
    options.max_message_bytes = kMaxMessageBytes;
    net::GrpcClientConnection::Visitor& visitor = *this;
    connection_ = std::make_unique<net::GrpcClientConnection>(loop_, peer_.MakeStream(), "fuzz",
                                                              options, visitor);
    for (FuzzedCall& call : calls_) call.Start(*connection_);
    loop_.RunPending();
  }
  ~FuzzedClient() override {
    peer_.Break();
    VARNIC_CHECK(connection_ == nullptr);
    for (const FuzzedCall& call : calls_) VARNIC_CHECK(!call.open());
    (void)Take();
  }
  FuzzedClient(const FuzzedClient&) = delete;
  FuzzedClient& operator=(const FuzzedClient&) = delete;

  net::testing::FakePeer& peer() { return peer_; }
  FuzzedCall& call(std::size_t i) { return calls_[i % kCalls]; }

  void Send(std::string_view bytes, std::size_t piece_size) {
    most_output_ += (bytes.size() / kFrameHeader + 1) * kOutputPerFrame;
    peer_.SendInPieces(bytes, piece_size);
    loop_.RunPending();
  }
  std::string Take() {
    std::string output = peer_.Take();
    output_ += output.size();
    VARNIC_CHECK(output_ <= most_output_);
    return output;
  }

 private:
  void OnGoaway(net::GrpcClientConnection& /*connection*/) override {}
  void OnConnectionClosed(net::GrpcClientConnection& /*connection*/,
                          const absl::Status& /*status*/) override {
    connection_ = nullptr;
  }

  std::size_t most_output_ = kOutputAnyway;
  std::size_t output_ = 0;
  net::testing::FakePeer peer_;
  net::EventLoop loop_;
  std::array<FuzzedCall, kCalls> calls_;
  std::unique_ptr<net::GrpcClientConnection> connection_;  // Null once it has ended.
};

// A server that follows the input. Each step is a letter, `a` to `o`, and what it needs.
class ScriptedServer {
 public:
  explicit ScriptedServer(FuzzInput& input) : input_(input) {}

  void Run() {
    piece_size_ = input_.TakeByte() + std::size_t{1};
    Exchange();
    for (int i = 0; i < kMaxSteps && !input_.empty(); ++i) {
      Step();
      Exchange();
    }
  }

 private:
  void Step() {
    switch (input_.TakeByte() & 0xF) {
      case 'a' & 0xF:
        return server_.Respond(StreamId(), Head());
      case 'b' & 0xF:
        return server_.Data(StreamId(), Framed(input_.TakePiece()), input_.TakeBool());
      case 'c' & 0xF:
        return server_.Data(StreamId(), input_.TakePiece(), input_.TakeBool());
      case 'd' & 0xF:
        return server_.Trailers(StreamId(), Status());
      case 'e' & 0xF:
        return server_.Respond(StreamId(), WithStatus(Head()), /*end=*/true);
      case 'f' & 0xF:
        return server_.Inform(StreamId(), {{":status", "103"}});
      case 'g' & 0xF:
        return server_.Reset(StreamId(), input_.TakeByte());
      case 'h' & 0xF:
        return server_.Goaway(StreamId(), input_.TakeByte(), std::string(input_.TakePiece()));
      case 'i' & 0xF:
        return server_.Read(StreamId(), input_.TakeByte());
      case 'j' & 0xF:
        return RawFrame();
      case 'k' & 0xF:
        return client_.Send(input_.TakePiece(), piece_size_);
      case 'l' & 0xF:
        return client_.peer().LimitRoom(input_.TakeByte());
      case 'm' & 0xF:
        return client_.peer().MakeRoom();
      case 'n' & 0xF:
        return client_.call(input_.TakeByte()).Cancel();
      case 'o' & 0xF:
        return client_.call(input_.TakeByte()).CancelAtMessage();
      default:
        client_.peer().Close();
    }
  }

  void Exchange() {
    server_.Receive(client_.Take());
    client_.Send(server_.Take(), piece_size_);
  }

  void RawFrame() {
    const uint8_t type = input_.TakeByte();
    const uint8_t flags = input_.TakeByte();
    const int32_t stream = input_.TakeByte();
    client_.Send(net::testing::MakeFrame(type, flags, stream, input_.TakePiece()), piece_size_);
  }

  RawHttp2Peer::Fields Head() {
    const unsigned flags = input_.TakeByte();
    RawHttp2Peer::Fields head = {
        {":status", (flags & 1) != 0 ? std::string(input_.TakePiece()) : "200"}};
    if ((flags & 2) == 0) head.emplace_back("content-type", "application/grpc");
    if ((flags & 4) != 0) head.emplace_back(input_.TakePiece(), input_.TakePiece());
    return head;
  }

  RawHttp2Peer::Fields Status() { return WithStatus({}); }

  RawHttp2Peer::Fields WithStatus(RawHttp2Peer::Fields fields) {
    const unsigned code = input_.TakeByte();
    fields.emplace_back("grpc-status",
                        code < 20 ? std::to_string(code) : std::string(input_.TakePiece()));
    fields.emplace_back("grpc-message", input_.TakePiece());
    return fields;
  }

  // Of a call, usually.
  int32_t StreamId() { return static_cast<int32_t>(1 + 2 * (input_.TakeByte() & 3)); }

  FuzzInput& input_;
  std::size_t piece_size_ = 1;
  RawHttp2Peer server_{RawHttp2Peer::Role::kServer};
  FuzzedClient client_;
};

// After what every server says first, the input's bytes and nothing else.
void SendRaw(FuzzInput& input) {
  const std::size_t piece_size = input.TakeByte() + std::size_t{1};
  FuzzedClient client;
  client.Send(net::testing::MakeFrame(/*type=*/4, 0, 0, ""), piece_size);
  client.Send(input.TakeRest(), piece_size);
}

}  // namespace
}  // namespace varnic::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  varnic::fuzz::FuzzInput input(data, size);
  if (input.TakeBool()) {
    varnic::fuzz::SendRaw(input);
  } else {
    varnic::fuzz::ScriptedServer(input).Run();
  }
  return 0;
}
