#include "core/server/rpc_server.h"

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/stubs/callback.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "core/net/frame_message.h"
#include "core/net/grpc_client_connection.h"
#include "rpc/profile/profile.rpc.h"

namespace varnic {
namespace {

ProfileId MakeRequest() {
  ProfileId id;
  id.set_value("of the client");
  return id;
}

std::string SocketPath() {
  static int number = 0;
  return absl::StrCat(::testing::TempDir(), "rpc_server_", getpid(), "_", ++number);
}

// Answers Path() with a text of its own.
class FixedPath : public rpc::ProfileRpc {
 public:
  void Path(google::protobuf::RpcController* /*controller*/, const ProfileId* /*request*/,
            google::protobuf::StringValue* response, google::protobuf::Closure* done) override {
    response->set_value("from Profile");
    done->Run();
  }
};

// Has a closure wait for the cancellation of each Path(), and reads the messages in it.
class LateReader : public rpc::ProfileRpc {
 public:
  void Path(google::protobuf::RpcController* controller, const ProfileId* request,
            google::protobuf::StringValue* response, google::protobuf::Closure* done) override {
    response->set_value("from Profile");
    controller->NotifyOnCancel(
        google::protobuf::NewCallback(this, &LateReader::OnEnd, request, response));
    done->Run();
  }

  std::string request_read;
  std::string response_read;

 private:
  void OnEnd(const ProfileId* request, google::protobuf::StringValue* response) {
    request_read = request->value();
    response_read = response->value();
  }
};

// Another service: test.Second with a method Path() of the same types.
class SecondService : public Service {
 public:
  SecondService() {
    google::protobuf::FileDescriptorProto file;
    file.set_name("test/second.proto");
    file.set_package("test");
    file.add_dependency(rpc::ProfileRpc::descriptor()->file()->name());
    file.add_dependency(ProfileId::descriptor()->file()->name());
    file.add_dependency(google::protobuf::StringValue::descriptor()->file()->name());
    google::protobuf::ServiceDescriptorProto& service = *file.add_service();
    service.set_name("Second");
    google::protobuf::MethodDescriptorProto& method = *service.add_method();
    method.set_name("Path");
    method.set_input_type(".ProfileId");
    method.set_output_type(".google.protobuf.StringValue");
    descriptor_ = pool_.BuildFile(file)->service(0);
  }

  const google::protobuf::ServiceDescriptor* GetDescriptor() override { return descriptor_; }
  void CallMethod(const google::protobuf::MethodDescriptor* /*method*/,
                  google::protobuf::RpcController* /*controller*/,
                  const google::protobuf::Message* /*request*/, google::protobuf::Message* response,
                  google::protobuf::Closure* done) override {
    static_cast<google::protobuf::StringValue*>(response)->set_value("from Second");
    done->Run();
  }
  const google::protobuf::Message& GetRequestPrototype(
      const google::protobuf::MethodDescriptor* /*method*/) const override {
    return ProfileId::default_instance();
  }
  const google::protobuf::Message& GetResponsePrototype(
      const google::protobuf::MethodDescriptor* /*method*/) const override {
    return google::protobuf::StringValue::default_instance();
  }
  AbstractStream* OpenStream(const google::protobuf::MethodDescriptor* /*method*/,
                             StreamChannel /*channel*/) override {
    return nullptr;
  }

 private:
  google::protobuf::DescriptorPool pool_{google::protobuf::DescriptorPool::generated_pool()};
  const google::protobuf::ServiceDescriptor* descriptor_;
};

// A call on the server's own loop; stops the server when it is done.
class LoopbackCall : private net::GrpcClientConnection::Visitor,
                     private net::GrpcClientCall::Visitor {
 public:
  LoopbackCall(RpcServer& server, const std::string& address, std::string path)
      : server_(server), path_(std::move(path)) {
    connector_ = net::Connector::Connect(
        server.loop(), *net::Address::Parse(address),
        [this](absl::StatusOr<std::unique_ptr<net::ByteStream>> stream) { Start(stream); });
  }

  std::string answer;
  absl::Status status;

 private:
  void Start(absl::StatusOr<std::unique_ptr<net::ByteStream>>& stream) {
    ASSERT_TRUE(stream.ok()) << stream.status();
    net::GrpcClientConnection::Visitor& visitor = *this;
    connection_ = std::make_unique<net::GrpcClientConnection>(
        server_.loop(), *std::move(stream), "localhost", net::GrpcClientOptions(), visitor);
    connection_->StartCall(path_, absl::InfiniteDuration(), *this)
        ->Send(net::FrameMessage(MakeRequest()), /*half_close=*/true);
  }
  void OnMessage(std::string_view message) override {
    google::protobuf::StringValue value;
    value.ParseFromArray(message.data(), static_cast<int>(message.size()));
    answer = value.value();
  }
  void OnDone(const absl::Status& result) override {
    status = result;
    server_.Stop();
  }
  void OnGoaway(net::GrpcClientConnection& /*connection*/) override {}
  void OnConnectionClosed(net::GrpcClientConnection& /*connection*/,
                          const absl::Status& /*status*/) override {}

  RpcServer& server_;
  const std::string path_;
  std::unique_ptr<net::Connector> connector_;
  std::unique_ptr<net::GrpcClientConnection> connection_;
};

absl::Status ListenFailure(const std::string& address) {
  RpcServer server;
  return server.Listen(address).status();
}

TEST(RpcServerTest, ListenReturnsTheAddressWithItsPort) {
  RpcServer server;

  const auto address = server.Listen("127.0.0.1:0");

  ASSERT_TRUE(address.ok()) << address.status();
  EXPECT_TRUE(absl::StartsWith(*address, "127.0.0.1:"));
  EXPECT_FALSE(absl::EndsWith(*address, ":0"));
}

TEST(RpcServerTest, ListensOnSeveralAddressesAtOnce) {
  FixedPath profile;
  for (const bool by_unix : {true, false}) {
    RpcServer server;
    server.AddService(profile);
    const auto unix_address = server.Listen("unix:" + SocketPath());
    const auto tcp_address = server.Listen("127.0.0.1:0");
    ASSERT_TRUE(unix_address.ok() && tcp_address.ok());
    const LoopbackCall call(server, by_unix ? *unix_address : *tcp_address, "/rpc.Profile/Path");

    server.Run();

    EXPECT_EQ(call.answer, "from Profile");
  }
}

TEST(RpcServerTest, TwoServicesAreServedSideBySide) {
  FixedPath profile;
  SecondService second;
  for (const auto& [path, text] : {std::pair("/rpc.Profile/Path", "from Profile"),
                                   std::pair("/test.Second/Path", "from Second")}) {
    RpcServer server;
    server.AddService(profile);
    server.AddService(second);
    const LoopbackCall call(server, *server.Listen("127.0.0.1:0"), path);

    server.Run();

    EXPECT_EQ(call.status, absl::OkStatus());
    EXPECT_EQ(call.answer, text);
  }
}

TEST(RpcServerTest, ClosureThatWaitsForACancellationReadsTheMessagesOfItsCall) {
  LateReader profile;
  RpcServer server;
  server.AddService(profile);
  const auto address = server.Listen("127.0.0.1:0");
  ASSERT_TRUE(address.ok()) << address.status();
  LoopbackCall call(server, *address, "/rpc.Profile/Path");

  server.Run();

  EXPECT_EQ(call.status, absl::OkStatus());
  EXPECT_EQ(profile.request_read, "of the client");
  EXPECT_EQ(profile.response_read, "from Profile");
}

TEST(RpcServerTest, ListenFailureNamesTheAddress) {
  const std::string missing = "unix:/nowhere/at/all";
  const std::string in_the_way = SocketPath();
  std::ofstream(in_the_way) << "no socket";

  for (const std::string& address : {missing, "unix:" + in_the_way, std::string("nonsense"),
                                     std::string("192.0.2.1:80"), std::string("127.0.0.1:99999")}) {
    const absl::Status status = ListenFailure(address);

    EXPECT_FALSE(status.ok());
    const std::string name = address.substr(absl::StartsWith(address, "unix:") ? 5 : 0);
    EXPECT_TRUE(absl::StrContains(status.message(), name)) << status;
  }
  unlink(in_the_way.c_str());
}

TEST(RpcServerTest, AddressOfARunningServerIsNotTaken) {
  RpcServer first;
  for (const std::string& wanted : {std::string("127.0.0.1:0"), "unix:" + SocketPath()}) {
    const auto address = first.Listen(wanted);
    ASSERT_TRUE(address.ok()) << address.status();

    const absl::Status status = ListenFailure(*address);

    EXPECT_EQ(status.code(), absl::StatusCode::kFailedPrecondition);
    EXPECT_TRUE(absl::StrContains(status.message(), *address)) << status;
  }
}

TEST(RpcServerTest, SocketFileGoesWithItsServer) {
  const std::string path = SocketPath();
  {
    RpcServer server;
    ASSERT_TRUE(server.Listen("unix:" + path).ok());
    EXPECT_EQ(access(path.c_str(), F_OK), 0);
  }

  EXPECT_NE(access(path.c_str(), F_OK), 0);
}

TEST(RpcServerTest, FailedListenLeavesTheServerUsable) {
  FixedPath profile;
  RpcServer server;
  server.AddService(profile);
  ASSERT_FALSE(server.Listen("unix:/nowhere/at/all").ok());
  const LoopbackCall call(server, *server.Listen("127.0.0.1:0"), "/rpc.Profile/Path");

  server.Run();

  EXPECT_EQ(call.answer, "from Profile");
}

TEST(RpcServerTest, PostedTasksRunOnTheRpcThreadInTheOrderOfTheirThread) {
  constexpr int kThreads = 4;
  constexpr int kTasks = 500;
  RpcServer server;
  std::vector<int> next(kThreads, 0);
  int left = kThreads * kTasks;
  const std::thread::id rpc_thread = std::this_thread::get_id();
  const auto task = [&](int thread, int number) {
    EXPECT_EQ(std::this_thread::get_id(), rpc_thread);
    EXPECT_EQ(next[thread]++, number);
    if (--left == 0) server.Stop();
  };

  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int i = 0; i < kTasks; ++i) server.Post([&task, thread, i] { task(thread, i); });
    });
  }
  server.Run();
  for (std::thread& thread : threads) thread.join();

  EXPECT_EQ(left, 0);
}

TEST(RpcServerTest, TaskMayPostAndStop) {
  RpcServer server;
  std::string order;

  server.Post([&] {
    order += "first ";
    server.Post([&] {
      order += "second";
      server.Stop();
    });
  });
  server.Run();

  EXPECT_EQ(order, "first second");
}

TEST(RpcServerTest, TasksThatAreLeftRunWhenTheServerIsDestroyed) {
  std::string order;
  {
    RpcServer server;
    server.Post([&] {
      order += "first ";
      server.Post([&] { order += "second"; });
    });
    server.Stop();
    server.Run();
    EXPECT_EQ(order, "");
  }

  EXPECT_EQ(order, "first second");
}

TEST(RpcServerTest, StopBeforeRunCounts) {
  RpcServer server;

  server.Stop();

  server.Run();
}

TEST(RpcServerDeathTest, SecondServiceOfTheSameNameIsFatal) {
  FixedPath profile;
  RpcServer server;
  server.AddService(profile);

  EXPECT_DEATH(server.AddService(profile), "is_new");
}

// Runs `use` while another thread runs the server.
void UseWhileAnotherThreadRuns(const std::function<void(RpcServer&)>& use) {
  auto server = std::make_unique<RpcServer>();
  std::thread thread([&] { server->Run(); });
  std::atomic<bool> running = false;
  server->Post([&] { running = true; });
  while (!running) std::this_thread::yield();
  use(*server);
  server->Stop();
  thread.join();
}

class RpcServerThreadDeathTest : public ::testing::Test {
 protected:
  RpcServerThreadDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

TEST_F(RpcServerThreadDeathTest, ListenOnAnotherThreadIsFatal) {
  EXPECT_DEATH(UseWhileAnotherThreadRuns(
                   [](RpcServer& server) { static_cast<void>(server.Listen("127.0.0.1:0")); }),
               "IsLoopThread");
}

TEST_F(RpcServerThreadDeathTest, AddServiceOnAnotherThreadIsFatal) {
  FixedPath profile;

  EXPECT_DEATH(UseWhileAnotherThreadRuns([&](RpcServer& server) { server.AddService(profile); }),
               "IsLoopThread");
}

TEST_F(RpcServerThreadDeathTest, SecondRunIsFatal) {
  EXPECT_DEATH(UseWhileAnotherThreadRuns([](RpcServer& server) { server.Run(); }), "Check failed");
}

}  // namespace
}  // namespace varnic
