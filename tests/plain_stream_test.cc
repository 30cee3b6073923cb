// Streams of a service's own class, which are neither event nor callback streams.

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/wrappers.pb.h>
#include <gtest/gtest.h>

#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/common/rpc/abstract_stream.h"
#include "core/common/rpc/service.h"
#include "core/server/rpc_server.h"
#include "rpc/profile/profile.rpc.h"
#include "rpc/transport/stream_message.pb.h"
#include "tests/served_host.h"
#include "tests/stream_peer.h"

namespace varnic {
namespace {

using ::rpc::transport::StreamMessage;

// Sends back what it gets, with what it was told as. Completes at "enough".
class EchoStream : public AbstractStream {
 public:
  EchoStream(StreamChannel channel, int& alive)
      : AbstractStream(std::move(channel)), alive_(alive) {
    ++alive_;
  }
  ~EchoStream() override { --alive_; }

  void OnNext(StreamMessage* message) override {
    if (message->payload() == "enough") return Complete();
    Answer("next " + std::to_string(message->call_id()) + " " + message->payload());
  }
  void OnError(StreamMessage* message) override { Answer("error " + message->payload()); }
  void OnCompleted() override { Complete(); }

 private:
  void Answer(const std::string& text) {
    StreamMessage answer;
    answer.set_payload(text);
    answer.set_call_id(7);
    channel().Send(answer);
  }

  int& alive_;
};

// Leaves it to its end to end the call.
class SilentStream : public EchoStream {
 public:
  using EchoStream::EchoStream;

  void OnCompleted() override {}
};

// Gives its channel away.
class GivingStream : public SilentStream {
 public:
  GivingStream(StreamChannel given, int& alive, std::vector<StreamChannel>& channels)
      : SilentStream(std::move(given), alive) {
    channels.push_back(std::move(channel()));
  }
};

// test.Echo, whose methods take a stream of StringValue and return one of rpc.CanAccessFile, which
// has a field for call ids. Opens no streams of Nothing().
class EchoService : public Service {
 public:
  EchoService() {
    google::protobuf::FileDescriptorProto file;
    file.set_name("test/echo.proto");
    file.set_package("test");
    file.add_dependency(rpc::ProfileRpc::descriptor()->file()->name());
    file.add_dependency(google::protobuf::StringValue::descriptor()->file()->name());
    google::protobuf::ServiceDescriptorProto& service = *file.add_service();
    service.set_name("Echo");
    for (const char* name : {"Echo", "Silent", "Giving", "Nothing"}) {
      google::protobuf::MethodDescriptorProto& method = *service.add_method();
      method.set_name(name);
      method.set_input_type(".google.protobuf.StringValue");
      method.set_output_type(".rpc.CanAccessFile");
      method.set_client_streaming(true);
      method.set_server_streaming(true);
    }
    descriptor_ = pool_.BuildFile(file)->service(0);
  }

  const google::protobuf::ServiceDescriptor* GetDescriptor() override { return descriptor_; }
  void CallMethod(const google::protobuf::MethodDescriptor* /*method*/,
                  google::protobuf::RpcController* /*controller*/,
                  const google::protobuf::Message* /*request*/,
                  google::protobuf::Message* /*response*/,
                  google::protobuf::Closure* /*done*/) override {}
  const google::protobuf::Message& GetRequestPrototype(
      const google::protobuf::MethodDescriptor* /*method*/) const override {
    return google::protobuf::StringValue::default_instance();
  }
  const google::protobuf::Message& GetResponsePrototype(
      const google::protobuf::MethodDescriptor* /*method*/) const override {
    return rpc::CanAccessFile::default_instance();
  }
  AbstractStream* OpenStream(const google::protobuf::MethodDescriptor* method,
                             StreamChannel channel) override {
    if (method->name() == "Nothing") return nullptr;
    if (method->name() == "Silent") return new SilentStream(std::move(channel), alive);
    if (method->name() == "Giving") return new GivingStream(std::move(channel), alive, channels);
    return new EchoStream(std::move(channel), alive);
  }

  int alive = 0;                        // Streams.
  std::vector<StreamChannel> channels;  // Those of Giving().

 private:
  google::protobuf::DescriptorPool pool_{google::protobuf::DescriptorPool::generated_pool()};
  const google::protobuf::ServiceDescriptor* descriptor_;
};

class PlainStreamTest : public ::testing::Test {
 protected:
  // Serves the service from a thread of its own.
  void Serve(bool plain_streams, const net::GrpcClientOptions& client_options = {}) {
    ServiceOptions options;
    options.plain_streams = plain_streams;
    server_.AddService(service_, options);
    const auto address = server_.Listen(NewSocketAddress());
    ASSERT_TRUE(address.ok()) << address.status();
    thread_ = std::thread([this] { server_.Run(); });
    peer_ = std::make_unique<StreamPeer>(*address, client_options);
  }

  void TearDown() override {
    server_.Post([this] { server_.Stop(); });
    thread_.join();
    EXPECT_EQ(service_.alive, 0);
    EXPECT_EQ(server_.streams().open_streams(), 0u);
  }

  std::unique_ptr<StreamPeer::Stream> Open(const std::string& method,
                                           StreamFraming framing = StreamFraming::kTyped) {
    return std::make_unique<StreamPeer::Stream>(*peer_, "/test.Echo/" + method, framing);
  }

  // Runs `task` on the RPC thread, and waits for its end.
  void RunOnServer(const std::function<void()>& task) {
    const auto done = std::make_shared<std::promise<void>>();
    server_.Post([&task, done] {
      task();
      done->set_value();
    });
    done->get_future().wait();
  }

  EchoService service_;
  RpcServer server_;
  std::thread thread_;
  std::unique_ptr<StreamPeer> peer_;
};

TEST_F(PlainStreamTest, AnyBytesReachTheStreamAndComeBackAsTheyAre) {
  Serve(/*plain_streams=*/true);
  const auto stream = Open("Echo");
  const std::string bytes("\xff\0 no message", 13);

  stream->Send(bytes);
  EXPECT_EQ(stream->Receive(), "next 0 " + bytes);
  stream->Send("");
  EXPECT_EQ(stream->Receive(), "next 0 ");

  stream->HalfClose();
  EXPECT_EQ(stream->Finish(), absl::OkStatus());
}

TEST_F(PlainStreamTest, EnvelopesAreTakenApart) {
  Serve(/*plain_streams=*/true);
  const auto stream = Open("Echo", StreamFraming::kEnvelope);
  StreamMessage envelope;
  envelope.set_payload("hello");
  envelope.set_call_id(3);
  StreamMessage answer;

  stream->Send(envelope.SerializeAsString());
  ASSERT_TRUE(answer.ParseFromString(stream->Receive()));
  EXPECT_EQ(answer.payload(), "next 3 hello");
  EXPECT_EQ(answer.call_id(), 7);
  envelope.set_kind(StreamMessage::ERROR);
  stream->Send(envelope.SerializeAsString());
  ASSERT_TRUE(answer.ParseFromString(stream->Receive()));
  EXPECT_EQ(answer.payload(), "error hello");

  stream->Send("\xff");
  EXPECT_EQ(stream->Finish().code(), absl::StatusCode::kInvalidArgument);
}

TEST_F(PlainStreamTest, StreamThatCompletesByItselfIsDestroyed) {
  Serve(/*plain_streams=*/true);
  const auto stream = Open("Echo");

  stream->Send("enough");

  EXPECT_EQ(stream->Finish(), absl::OkStatus());
}

TEST_F(PlainStreamTest, ResetEndsTheStream) {
  Serve(/*plain_streams=*/true);
  const auto stream = Open("Echo");
  stream->Send("");
  ASSERT_EQ(stream->Receive(), "next 0 ");

  stream->Reset();

  peer_->Pump();
}

TEST_F(PlainStreamTest, StreamThatTheServiceDoesNotOpenIsUnimplemented) {
  Serve(/*plain_streams=*/true);

  EXPECT_EQ(Open("Nothing")->Finish(), absl::UnimplementedError("The host serves no such stream"));
}

TEST_F(PlainStreamTest, StreamThatDoesNotCompleteEndsWithItsStatus) {
  Serve(/*plain_streams=*/true);
  const auto closed = Open("Silent");
  const auto broken = Open("Silent", StreamFraming::kEnvelope);

  closed->HalfClose();
  broken->Send("\xff");

  EXPECT_EQ(closed->Finish(), absl::OkStatus());
  EXPECT_EQ(broken->Finish().code(), absl::StatusCode::kInvalidArgument);
}

TEST_F(PlainStreamTest, StreamThatDoesNotCompleteLosesNothingThatWaits) {
  net::GrpcClientOptions options;
  options.http2.stream_window_bytes = 1000;
  Serve(/*plain_streams=*/true, options);
  const auto stream = Open("Silent");
  const std::string bytes(50'000, 'x');

  for (int i = 0; i < 3; ++i) stream->Send(bytes);
  stream->HalfClose();

  for (int i = 0; i < 3; ++i) EXPECT_EQ(stream->Receive(), "next 0 " + bytes);
  EXPECT_EQ(stream->Finish(), absl::OkStatus());
}

TEST_F(PlainStreamTest, ChannelThatOutlivesItsStreamDoesNothing) {
  Serve(/*plain_streams=*/true);
  const auto stream = Open("Giving");
  stream->HalfClose();
  ASSERT_EQ(stream->Finish(), absl::OkStatus());

  RunOnServer([this] {
    ASSERT_EQ(service_.channels.size(), 1u);
    EXPECT_EQ(service_.alive, 0);
    StreamChannel& channel = service_.channels.front();
    EXPECT_FALSE(channel.IsPeerPresent());
    EXPECT_FALSE(channel.Send(StreamMessage()));
    channel.Complete();
    service_.channels.clear();
  });
}

TEST_F(PlainStreamTest, ChannelThatIsDroppedElsewhereEndsTheStream) {
  Serve(/*plain_streams=*/true);
  const auto stream = Open("Giving");
  for (bool is_open = false; !is_open;) {
    peer_->Pump();
    RunOnServer([&] { is_open = !service_.channels.empty(); });
  }

  RunOnServer([this] {
    EXPECT_TRUE(service_.channels.front().IsPeerPresent());
    service_.channels.clear();
  });

  EXPECT_EQ(stream->Finish(), absl::CancelledError("The host has dropped the stream"));
  RunOnServer([this] { EXPECT_EQ(service_.alive, 0); });
}

TEST_F(PlainStreamTest, ServiceThatDoesNotAskForPlainStreamsHasNone) {
  Serve(/*plain_streams=*/false);

  EXPECT_EQ(
      Open("Echo")->Finish(),
      absl::UnimplementedError("test.Echo.Echo is neither an event stream nor a callback stream"));
}

}  // namespace
}  // namespace varnic
