// A server's whole connection, from bytes to the streams of the profile service, to health checks
// and to reflection, against a client that sends whatever the input says: raw bytes, or a script of
// what clients do. Nothing ends the process, what the server says is bounded, and with the
// connection everything goes.

#include <cstddef>
#include <cstdint>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "absl/time/time.h"
#include "core/net/message_framing.h"
#include "core/net/testing/raw_http2_peer.h"
#include "fuzz/fuzz_input.h"
#include "fuzz/quiet_logs.h"
#include "fuzz/served_connection.h"
#include "rpc/event_subscription.pb.h"
#include "rpc/profile/profile.pb.h"
#include "rpc/transport/stream_message.pb.h"

namespace varnic::fuzz {
namespace {

using net::testing::RawHttp2Peer;

constexpr int kMaxSteps = 200;
constexpr const char* kPaths[] = {
    "/rpc.Profile/WhenNetworkChanged",
    "/rpc.Profile/OnCanAccessFile",
    "/rpc.Profile/OnAuthenticate",
    "/rpc.Profile/Path",
    "/rpc.Profile/Name",
    "/rpc.Profile/GetUserAgent",
    nullptr,  // Any.
    nullptr,
    "/grpc.health.v1.Health/Check",
    "/grpc.health.v1.Health/Watch",
    "/grpc.health.v1.Health/List",
    "/grpc.reflection.v1.ServerReflection/ServerReflectionInfo",
    "/grpc.reflection.v1alpha.ServerReflection/ServerReflectionInfo",
};
constexpr const char* kProfiles[] = {"", "a", "b"};

std::string Framed(std::string_view message, bool compressed) {
  const auto prefix = net::MakeMessagePrefix(static_cast<uint32_t>(message.size()), compressed);
  return std::string(prefix.data(), prefix.size()).append(message);
}

// A client that follows the input. Each step is a letter, `a` to `p`, and what it needs.
class ScriptedClient {
 public:
  explicit ScriptedClient(FuzzInput& input) : input_(input) {}

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
        return Request();
      case 'b' & 0xF:
        return Data(TypedMessage(), /*framed=*/true);
      case 'c' & 0xF:
        return Data(Envelope(), /*framed=*/true);
      case 'd' & 0xF:
        return Data(std::string(input_.TakePiece()), /*framed=*/true);
      case 'e' & 0xF:
        return Data(std::string(input_.TakePiece()), /*framed=*/false);
      case 'f' & 0xF:
        return client_.Data(StreamId(), "", /*end=*/true);
      case 'g' & 0xF:
        return client_.Trailers(StreamId(), {{"x-checksum", std::string(input_.TakePiece())}});
      case 'h' & 0xF:
        return client_.Reset(StreamId(), input_.TakeByte());
      case 'i' & 0xF:
        return client_.Goaway(StreamId());
      case 'j' & 0xF:
        return client_.Read(StreamId(), input_.TakeByte());
      case 'k' & 0xF:
        return RawFrame();
      case 'l' & 0xF:
        return server_.Send(input_.TakePiece(), piece_size_);
      case 'm' & 0xF:
        return server_.peer().LimitRoom(input_.TakeByte());
      case 'n' & 0xF:
        return server_.peer().MakeRoom();
      case 'o' & 0xF:
        return server_.peer().Close();
      default:
        HostStep();
    }
  }

  void HostStep() {
    switch (input_.TakeBelow(8)) {
      case 0:
        return server_.Publish(Profile());
      case 1:
        return server_.AskAccess(Profile());
      case 2:
        return server_.AskCredentials(Profile());
      case 3:
        return server_.Withdraw();
      case 4:
        return server_.AnswerKept();
      case 5:
        return server_.Drain();
      case 7:
        return server_.ToggleServing();
      default:
        PassTime();
    }
  }

  // Up to the ends of deadlines, and of what the server waits for. First the client answers.
  void PassTime() {
    Exchange();
    constexpr absl::Duration kTimes[] = {absl::Nanoseconds(1), absl::Seconds(1),  absl::Seconds(10),
                                         absl::Seconds(60),    absl::Minutes(15), absl::Hours(2)};
    server_.PassTime(kTimes[input_.TakeBelow(std::size(kTimes))]);
  }

  void Exchange() {
    server_.Send(client_.Take(), piece_size_);
    client_.Receive(server_.Take());
  }

  void Request() {
    const char* const path = kPaths[input_.TakeBelow(std::size(kPaths))];
    const unsigned flags = input_.TakeByte();
    RawHttp2Peer::Fields fields = {
        {":method", "POST"},
        {":scheme", "http"},
        {":path", path != nullptr ? std::string(path) : std::string(input_.TakePiece())},
        {":authority", "fuzz"},
        {"te", "trailers"},
        {"content-type", "application/grpc"}};
    if (flags & 2) fields.emplace_back("varnic-framing", "envelope");
    if (flags & 4) fields.emplace_back("grpc-timeout", "1n");
    if (flags & 8) fields.emplace_back("grpc-encoding", "gzip");
    if (flags & 32) fields.emplace_back("grpc-timeout", "15S");
    if (flags & 16) fields.emplace_back(input_.TakePiece(), input_.TakePiece());
    const int32_t stream = client_.Request(fields, (flags & 1) != 0);
    if (stream > 0) streams_.push_back(stream);
  }

  void Data(const std::string& message, bool framed) {
    const int32_t stream = StreamId();
    const unsigned flags = input_.TakeByte();
    client_.Data(stream, framed ? Framed(message, (flags & 2) != 0) : message, (flags & 1) != 0);
  }

  void RawFrame() {
    const uint8_t type = input_.TakeByte();
    const uint8_t flags = input_.TakeByte();
    const int32_t stream = input_.TakeBool() ? StreamId() : input_.TakeByte();
    server_.Send(net::testing::MakeFrame(type, flags, stream, input_.TakePiece()), piece_size_);
  }

  std::string TypedMessage() {
    return input_.TakeBool() ? Subscription() : Answer<::rpc::CanAccessFile>();
  }

  std::string Envelope() {
    ::rpc::transport::StreamMessage envelope;
    envelope.set_kind(input_.TakeBool() ? ::rpc::transport::StreamMessage::ERROR
                                        : ::rpc::transport::StreamMessage::MESSAGE);
    envelope.set_call_id(input_.TakeByte());
    envelope.set_payload(TypedMessage());
    return envelope.SerializeAsString();
  }

  std::string Subscription() {
    ::rpc::EventSubscription subscription;
    subscription.mutable_key()->set_value(Profile());
    subscription.set_action(static_cast<::rpc::EventSubscription::Action>(input_.TakeBelow(4)));
    return subscription.SerializeAsString();
  }

  // Both callback streams number their fields alike.
  template <class T>
  std::string Answer() {
    T message;
    message.mutable_profile_id()->set_value(Profile());
    switch (input_.TakeBelow(6)) {
      case 0:
        message.set_subscribe(true);
        break;
      case 1:
        message.set_subscribe(false);
        break;
      case 2:
        message.mutable_response();
        break;
      case 3:
        message.mutable_request();
        break;
      case 4:
        message.set_error("no");
        break;
      default:
        break;
    }
    message.set_call_id(input_.TakeByte());
    return message.SerializeAsString();
  }

  std::string Profile() { return kProfiles[input_.TakeBelow(std::size(kProfiles))]; }

  // One that is or was open; or none.
  int32_t StreamId() {
    const std::size_t i = input_.TakeByte() & 0xF;
    return i < streams_.size() ? streams_[streams_.size() - 1 - i] : 1;
  }

  FuzzInput& input_;
  std::size_t piece_size_ = 1;
  std::vector<int32_t> streams_;
  RawHttp2Peer client_{RawHttp2Peer::Role::kClient};
  ServedConnection server_;
};

// After what every client says first, the input's bytes and nothing else.
void SendRaw(FuzzInput& input) {
  const std::size_t piece_size = input.TakeByte() + std::size_t{1};
  ServedConnection server;
  server.Send(net::testing::kClientPreface, piece_size);
  server.Send(net::testing::MakeFrame(/*type=*/4, 0, 0, ""), piece_size);
  server.Send(input.TakeRest(), piece_size);
  (void)server.Take();
}

}  // namespace
}  // namespace varnic::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  varnic::fuzz::QuietLogs();
  varnic::fuzz::FuzzInput input(data, size);
  if (input.TakeBool()) {
    varnic::fuzz::SendRaw(input);
  } else {
    varnic::fuzz::ScriptedClient(input).Run();
  }
  return 0;
}
