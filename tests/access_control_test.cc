// Who may come in and call what, as a client meets it: over Unix-domain sockets, TCP and TLS.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "absl/strings/str_cat.h"
#include "core/client/client.h"
#include "core/net/address.h"
#include "core/net/socket_stream.h"
#include "core/net/testing/test_certificates.h"
#include "core/server/rpc_server.h"
#include "core/server/server_controller.h"
#include "rpc/profile/profile.client.h"
#include "rpc/profile/profile.rpc.h"

namespace varnic {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;

// Answers Path() with what it is asked about, and Name() with who is asking; keeps the controller's
// word for it. IsDefault() it keeps for the test to answer. Of a stream it keeps the channel, and
// does not serve it.
class Witness : public rpc::ProfileRpc {
 public:
  void Path(google::protobuf::RpcController* /*controller*/, const ProfileId* request,
            google::protobuf::StringValue* response, google::protobuf::Closure* done) override {
    response->set_value(request->value());
    done->Run();
  }
  void Name(google::protobuf::RpcController* controller, const ProfileId* /*request*/,
            google::protobuf::StringValue* /*response*/, google::protobuf::Closure* done) override {
    const ServerController& caller = ServerController::From(controller);
    peer = caller.peer();
    role = caller.role();
    done->Run();
  }
  void IsDefault(google::protobuf::RpcController* controller, const ProfileId* /*request*/,
                 google::protobuf::BoolValue* /*response*/,
                 google::protobuf::Closure* done) override {
    kept_controller = &ServerController::From(controller);
    kept_done = done;
  }

  AbstractStream* OpenStream(const google::protobuf::MethodDescriptor* /*method*/,
                             StreamChannel channel) override {
    kept_channel.emplace(std::move(channel));
    return nullptr;
  }

  net::Peer peer;
  std::string role;
  std::optional<StreamChannel> kept_channel;
  ServerController* kept_controller = nullptr;
  google::protobuf::Closure* kept_done = nullptr;
};

class AccessControlTest : public ::testing::Test {
 protected:
  AccessControlTest() {
    server_.AddService(witness_);
    IssueTo("server", "DNS:localhost,IP:127.0.0.1");
    IssueTo("reader", "URI:spiffe://example.org/reader");
    IssueTo("other", "URI:spiffe://example.org/other");
    folder_.Write("ca.pem", ca_.certificate());
  }

  std::string UnixAddress() const { return "unix:" + folder_.Path("host.sock"); }

  ListenOptions WithTls() const {
    ListenOptions options;
    options.tls.emplace();
    options.tls->certificate_file = folder_.Path("server.pem");
    options.tls->key_file = folder_.Path("server.key");
    options.tls->client_ca_file = folder_.Path("ca.pem");
    return options;
  }
  // A client with the certificate of that name; without one if it is empty.
  ClientOptions As(const std::string& name) const {
    ClientOptions options;
    options.tls.emplace();
    options.tls->ca_file = folder_.Path("ca.pem");
    if (!name.empty()) {
      options.tls->certificate_file = folder_.Path(name + ".pem");
      options.tls->key_file = folder_.Path(name + ".key");
    }
    return options;
  }

  std::string Listen(const std::string& address, const ListenOptions& options = {}) {
    const auto listening = server_.Listen(address, options);
    EXPECT_TRUE(listening.ok()) << listening.status();
    return listening.value_or("");
  }

  void UsePolicy(const std::string& json) {
    EXPECT_EQ(server_.UsePolicy(folder_.Write("policy.json", json)), absl::OkStatus());
  }

  // One call on a connection of its own, of any method: also of those that have no unary form.
  absl::Status Call(const std::string& address, const std::string& method,
                    const ClientOptions& options = {}) {
    Client client(server_.loop(), address, options);
    google::protobuf::StringValue response;
    return client.CallAndWait(*rpc::ProfileRpc::descriptor()->FindMethodByName(method), ProfileId(),
                              response, absl::Seconds(60));
  }

  // A connection on which nothing is said.
  static std::unique_ptr<net::ByteStream> ConnectInSilence(net::EventLoop& loop,
                                                           const std::string& address) {
    std::unique_ptr<net::ByteStream> result;
    const auto connector =
        net::Connector::Connect(loop, *net::Address::Parse(address),
                                [&](absl::StatusOr<std::unique_ptr<net::ByteStream>> stream) {
                                  ASSERT_TRUE(stream.ok()) << stream.status();
                                  result = *std::move(stream);
                                });
    loop.RunUntil([&] { return result != nullptr; });
    return result;
  }

  net::testing::TestFolder folder_;
  net::testing::TestCa ca_;
  Witness witness_;
  RpcServer server_;

 private:
  void IssueTo(const std::string& name, const std::string& alternative_names) {
    net::testing::CertificateSpec spec;
    spec.common_name = name;
    spec.alternative_names = alternative_names;
    const net::testing::IssuedCertificate issued = ca_.Issue(spec);
    folder_.Write(name + ".pem", issued.certificate);
    folder_.Write(name + ".key", issued.key);
  }
};

TEST_F(AccessControlTest, OverrideKnowsTheProcessThatCalls) {
  EXPECT_EQ(Call(Listen(UnixAddress()), "Name"), absl::OkStatus());

  EXPECT_EQ(witness_.peer.kind, net::Peer::Kind::kUnix);
  EXPECT_EQ(witness_.peer.uid, geteuid());
  EXPECT_EQ(witness_.peer.pid, getpid());
  EXPECT_EQ(witness_.role, "");
}

TEST_F(AccessControlTest, OverrideKnowsTheCertificateOfTheCaller) {
  EXPECT_EQ(Call(Listen("127.0.0.1:0", WithTls()), "Name", As("reader")), absl::OkStatus());

  EXPECT_EQ(witness_.peer.kind, net::Peer::Kind::kTls);
  ASSERT_TRUE(witness_.peer.certificate.has_value());
  EXPECT_EQ(witness_.peer.certificate->subject, "CN=reader");
}

TEST_F(AccessControlTest, CallOverPlainTcpIsNobodys) {
  EXPECT_EQ(Call(Listen("127.0.0.1:0"), "Name"), absl::OkStatus());

  EXPECT_EQ(witness_.peer.kind, net::Peer::Kind::kTcp);
  EXPECT_THAT(witness_.peer.address, HasSubstr("127.0.0.1:"));
}

TEST_F(AccessControlTest, ControllerKnowsTheCallerAlsoWhenTheConnectionIsGone) {
  {
    Client client(server_.loop(), Listen(UnixAddress()));
    rpc::ProfileClient(client).IsDefault(ProfileId(), absl::InfiniteDuration(),
                                         [](const auto& /*answer*/) {});
    server_.loop().RunUntil([&] { return witness_.kept_controller != nullptr; });
  }
  server_.loop().RunUntil([&] { return witness_.kept_controller->IsCanceled(); });

  EXPECT_EQ(witness_.kept_controller->peer().pid, getpid());
  witness_.kept_done->Run();
}

TEST_F(AccessControlTest, ChannelKnowsTheProcessThatOpenedItAlsoWhenTheConnectionIsGone) {
  EXPECT_EQ(Call(Listen(UnixAddress()), "WhenNetworkChanged").code(),
            absl::StatusCode::kUnimplemented);
  server_.loop().RunUntil([&] { return server_.open_connections() == 0; });

  ASSERT_TRUE(witness_.kept_channel.has_value());
  EXPECT_FALSE(witness_.kept_channel->IsPeerPresent());
  ASSERT_NE(witness_.kept_channel->peer(), nullptr);
  EXPECT_EQ(witness_.kept_channel->peer()->kind, net::Peer::Kind::kUnix);
  EXPECT_EQ(witness_.kept_channel->peer()->pid, getpid());
  EXPECT_EQ(witness_.kept_channel->role(), "");
}

TEST_F(AccessControlTest, ChannelKnowsTheCertificateAndTheRoleInWhichItWasOpened) {
  UsePolicy(R"({"roles": {"reader": {"san": ["URI:spiffe://example.org/reader"]}},
                "methods": {"*": ["reader"]}})");

  EXPECT_EQ(Call(Listen("127.0.0.1:0", WithTls()), "OnAuthenticate", As("reader")).code(),
            absl::StatusCode::kUnimplemented);

  ASSERT_TRUE(witness_.kept_channel.has_value());
  ASSERT_NE(witness_.kept_channel->peer(), nullptr);
  ASSERT_TRUE(witness_.kept_channel->peer()->certificate.has_value());
  EXPECT_EQ(witness_.kept_channel->peer()->certificate->subject, "CN=reader");
  EXPECT_EQ(witness_.kept_channel->role(), "reader");
}

TEST_F(AccessControlTest, WhoIsNotAdmittedCannotCall) {
  ListenOptions options;
  options.unix_admission.users = {geteuid() + 1};
  const std::string address = Listen(UnixAddress(), options);

  EXPECT_EQ(Call(address, "Path").code(), absl::StatusCode::kUnavailable);
  EXPECT_EQ(server_.refused_connections(), 1u);
}

TEST_F(AccessControlTest, ClientWithoutACertificateHearsWhy) {
  const std::string address = Listen("127.0.0.1:0", WithTls());

  const absl::Status status = Call(address, "Path", As(""));

  EXPECT_EQ(status.code(), absl::StatusCode::kUnavailable);
  EXPECT_THAT(std::string(status.message()), HasSubstr("alert certificate required"));
  EXPECT_EQ(server_.refused_connections(), 1u);
}

TEST_F(AccessControlTest, PlainClientOfATlsAddressFails) {
  const std::string address = Listen("127.0.0.1:0", WithTls());

  EXPECT_EQ(Call(address, "Path").code(), absl::StatusCode::kUnavailable);
}

// Otherwise handshakes would take the file descriptors that the cap leaves to the host.
TEST_F(AccessControlTest, HandshakesCountAsConnections) {
  ServerOptions options;
  options.max_connections = 2;
  RpcServer server(options);
  server.AddService(witness_);
  const auto tls = server.Listen("127.0.0.1:0", WithTls());
  const auto plain = server.Listen(UnixAddress());
  ASSERT_TRUE(tls.ok() && plain.ok()) << tls.status() << plain.status();
  const auto first = ConnectInSilence(server.loop(), *tls);
  const auto second = ConnectInSilence(server.loop(), *tls);
  Client client(server.loop(), *tls, As("reader"));
  const auto call_path = [](Client& caller) {
    return rpc::ProfileClient(caller).PathAndWait(ProfileId(), absl::Seconds(60)).status();
  };

  // Takes the place of the first, so that with the second there are two.
  EXPECT_EQ(call_path(client), absl::OkStatus());
  EXPECT_EQ(server.refused_connections(), 1u);
  Client third(server.loop(), *plain);
  EXPECT_EQ(call_path(third).code(), absl::StatusCode::kUnavailable);

  EXPECT_EQ(server.refused_connections(), 2u);
}

TEST_F(AccessControlTest, TlsClientOfAPlainAddressFailsInTime) {
  ClientOptions options = As("reader");
  options.connect_timeout = absl::Milliseconds(500);

  EXPECT_EQ(Call(Listen("127.0.0.1:0"), "Path", options).code(), absl::StatusCode::kUnavailable);
}

TEST_F(AccessControlTest, WhatIsWrongWithAClientsFilesEveryCallSays) {
  ClientOptions options = As("nobody");

  for (int i = 0; i < 2; ++i) {
    EXPECT_THAT(std::string(Call("127.0.0.1:1", "Path", options).message()),
                HasSubstr("certificate " + folder_.Path("nobody.pem")));
  }
  EXPECT_THAT(std::string(Call(UnixAddress(), "Path", As("reader")).message()),
              AllOf(HasSubstr("host.sock"), HasSubstr("TLS is for TCP")));
}

TEST_F(AccessControlTest, TlsCarriesMessagesOfMegabytes) {
  Client client(server_.loop(), Listen("127.0.0.1:0", WithTls()), As("reader"));
  ProfileId request;
  request.set_value(std::string(3 << 20, 'x'));

  const auto path = rpc::ProfileClient(client).PathAndWait(request, absl::Seconds(60));

  ASSERT_EQ(path.status(), absl::OkStatus());
  EXPECT_TRUE(path->value() == request.value());
}

constexpr char kReaders[] = R"({
  "roles": {
    "reader": {"san": ["URI:spiffe://example.org/reader"]},
    "guest": {"anyone": true}
  },
  "methods": {"/rpc.Profile/Name": ["reader"], "/rpc.Profile/Path": ["reader", "guest"]}
})";

TEST_F(AccessControlTest, EachCertificateHasTheMethodsOfItsRole) {
  UsePolicy(kReaders);
  const std::string address = Listen("127.0.0.1:0", WithTls());

  EXPECT_EQ(Call(address, "Name", As("reader")), absl::OkStatus());
  EXPECT_EQ(witness_.role, "reader");
  EXPECT_EQ(Call(address, "Path", As("other")), absl::OkStatus());
  EXPECT_EQ(Call(address, "Name", As("other")),
            absl::PermissionDeniedError("This client may not call /rpc.Profile/Name"));
  EXPECT_EQ(server_.denied_calls(), 1u);
}

TEST_F(AccessControlTest, EachUserHasTheMethodsOfItsRole) {
  UsePolicy(absl::StrCat(R"({"roles": {"me": {"uid": [)", geteuid(), R"(]}, "you": {"uid": [)",
                         geteuid() + 1, R"(]}}, "methods": {"/rpc.Profile/Name": ["me"],)",
                         R"( "/rpc.Profile/Path": ["you"]}})"));
  const std::string address = Listen(UnixAddress());

  EXPECT_EQ(Call(address, "Name"), absl::OkStatus());
  EXPECT_EQ(witness_.role, "me");
  EXPECT_EQ(Call(address, "Path").code(), absl::StatusCode::kPermissionDenied);
}

TEST_F(AccessControlTest, WhatIsDeniedIsNotTold) {
  UsePolicy(R"({"roles": {}, "methods": {}})");
  const std::string address = Listen(UnixAddress());

  // A method that the host does not serve, and a stream.
  EXPECT_EQ(Call(address, "GetUserAgent").code(), absl::StatusCode::kPermissionDenied);
  EXPECT_EQ(Call(address, "OnCanAccessFile").code(), absl::StatusCode::kPermissionDenied);
}

TEST_F(AccessControlTest, PolicyThatIsWrongIsRefusedAtTheStart) {
  const std::string path = folder_.Write("policy.json", R"({"roles": {}})");

  EXPECT_THAT(std::string(server_.UsePolicy(path).message()),
              AllOf(HasSubstr(path), HasSubstr("needs an object \"methods\"")));
}

}  // namespace
}  // namespace varnic
