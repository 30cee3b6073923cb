#include "core/net/tls_socket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "absl/strings/str_cat.h"
#include "core/net/testing/test_certificates.h"

namespace varnic::net {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// One end of a connection, and what it has heard.
class End : public ByteStream::Visitor {
 public:
  explicit End(std::unique_ptr<ByteStream> stream) : stream_(std::move(stream)) {
    stream_->Start(*this);
  }

  void Send(std::string bytes) {
    unsent_ += std::move(bytes);
    OnWritable();
  }

  const Peer& peer() const { return stream_->peer(); }
  const std::string& received() const { return received_; }
  bool closed() const { return closed_; }
  const absl::Status& status() const { return status_; }

 private:
  void OnBytes(std::string_view bytes) override { received_ += bytes; }
  void OnWritable() override { unsent_.erase(0, stream_->Write(unsent_)); }
  void OnClosed(const absl::Status& status) override {
    closed_ = true;
    status_ = status;
  }

  std::unique_ptr<ByteStream> stream_;
  std::string unsent_;
  std::string received_;
  bool closed_ = false;
  absl::Status status_;
};

std::string Text(const absl::Status& status) {
  return std::string(status.message());
}

class TlsSocketTest : public ::testing::Test {
 protected:
  TlsSocketTest() {
    WriteServerCertificate("first");
    server_options_.client_ca_file = folder_.Write("ca.pem", ca_.certificate());
    server_options_.reload_interval = absl::ZeroDuration();
    client_options_.ca_file = server_options_.client_ca_file;
    WriteClientCertificate();
  }

  void WriteServerCertificate(const std::string& name) {
    testing::CertificateSpec spec;
    spec.common_name = name;
    spec.alternative_names = "DNS:localhost,IP:127.0.0.1";
    const testing::IssuedCertificate issued = ca_.Issue(spec);
    server_options_.certificate_file = folder_.Write("server.pem", issued.certificate);
    server_options_.key_file = folder_.Write("server.key", issued.key);
  }

  long WriteClientCertificate() {
    testing::CertificateSpec spec;
    spec.alternative_names = "URI:spiffe://example.org/reader";
    const testing::IssuedCertificate issued = ca_.Issue(spec);
    client_options_.certificate_file = folder_.Write("client.pem", issued.certificate);
    client_options_.key_file = folder_.Write("client.key", issued.key);
    return issued.serial;
  }

  absl::Status Listen(const std::string& address = "127.0.0.1:0") {
    auto listener = ListenTls(
        loop_, *Address::Parse(address), server_options_,
        [this](std::unique_ptr<ByteStream> s) {
          accepted_.push_back(std::make_unique<End>(std::move(s)));
          accepted_.back()->Send("!");
        },
        has_room_);
    if (!listener.ok()) return listener.status();
    listener_ = *std::move(listener);
    address_ = listener_->address();
    return absl::OkStatus();
  }

  // The client's end of a new connection, or why there is none.
  absl::StatusOr<std::unique_ptr<End>> Connect() {
    auto context = TlsClientContext::Create(client_options_);
    if (!context.ok()) return context.status();
    absl::StatusOr<std::unique_ptr<End>> result;
    bool called = false;
    const auto connector =
        ConnectTls(loop_, address_, **context, [&](absl::StatusOr<std::unique_ptr<ByteStream>> s) {
          called = true;
          if (s.ok()) {
            result = std::make_unique<End>(*std::move(s));
          } else {
            result = s.status();
          }
        });
    loop_.RunUntil([&] { return called; });
    return result;
  }

  // Whether a new client gets in: whom the server lets in, it greets.
  bool GetsIn() {
    const auto client = Connect();
    if (!client.ok()) return false;
    loop_.RunUntil([&] { return (*client)->closed() || !(*client)->received().empty(); });
    return (*client)->received() == "!";
  }

  // The name in the certificate that the server shows to a new client.
  std::string ServerSubject() {
    const auto client = Connect();
    return client.ok() ? (*client)->peer().certificate->subject : Text(client.status());
  }

  // A connection that does no TLS.
  std::unique_ptr<End> ConnectPlainly() {
    std::unique_ptr<End> result;
    const auto connector =
        Connector::Connect(loop_, address_, [&](absl::StatusOr<std::unique_ptr<ByteStream>> s) {
          ASSERT_TRUE(s.ok()) << s.status();
          result = std::make_unique<End>(*std::move(s));
        });
    loop_.RunUntil([&] { return result != nullptr; });
    return result;
  }

  testing::TestFolder folder_;
  testing::TestCa ca_;
  TlsServerOptions server_options_;
  TlsClientOptions client_options_;
  EventLoop loop_;
  Address address_;
  std::vector<std::unique_ptr<End>> accepted_;
  HasRoom has_room_;
  std::unique_ptr<Listener> listener_;
};

TEST_F(TlsSocketTest, BothEndsKnowEachOther) {
  ASSERT_EQ(Listen(), absl::OkStatus());

  const auto client = Connect();
  ASSERT_TRUE(client.ok()) << client.status();
  loop_.RunUntil([&] { return !accepted_.empty(); });

  EXPECT_EQ((*client)->peer().certificate->subject, "CN=first");
  const Peer& peer = accepted_[0]->peer();
  EXPECT_EQ(peer.kind, Peer::Kind::kTls);
  EXPECT_THAT(peer.address, StartsWith("127.0.0.1:"));
  EXPECT_EQ(peer.certificate->uris, std::vector<std::string>{"spiffe://example.org/reader"});
  EXPECT_THAT(peer.ToString(), AllOf(StartsWith("peer=127.0.0.1:"), HasSubstr("CN=test"),
                                     HasSubstr(peer.certificate->fingerprint)));
}

TEST_F(TlsSocketTest, LargeTransfersArriveWholeBothWays) {
  ASSERT_EQ(Listen(), absl::OkStatus());
  const auto client = Connect();
  ASSERT_TRUE(client.ok()) << client.status();
  loop_.RunUntil([&] { return !accepted_.empty(); });
  std::string bytes;
  for (int i = 0; bytes.size() < (3 << 20); ++i) bytes += std::to_string(i);

  (*client)->Send(bytes);
  accepted_[0]->Send(bytes);
  loop_.RunUntil([&] {
    return accepted_[0]->received().size() >= bytes.size() &&
           (*client)->received().size() > bytes.size();
  });

  EXPECT_TRUE(accepted_[0]->received() == bytes);
  EXPECT_TRUE((*client)->received() == "!" + bytes);
}

TEST_F(TlsSocketTest, ListensBeyondLoopbackToo) {
  ASSERT_EQ(Listen("0.0.0.0:0"), absl::OkStatus());
  address_.host = "127.0.0.1";

  EXPECT_TRUE(GetsIn());
}

TEST_F(TlsSocketTest, UnixDomainSocketHasNoTls) {
  const absl::Status status = Listen("unix:" + folder_.Path("host.sock"));

  EXPECT_THAT(Text(status), AllOf(HasSubstr("host.sock"), HasSubstr("TLS is for TCP")));
}

TEST_F(TlsSocketTest, FileThatIsMissingIsNamedWithTheAddress) {
  server_options_.key_file = folder_.Path("missing.key");

  EXPECT_THAT(Text(Listen("127.0.0.1:0")),
              AllOf(HasSubstr("127.0.0.1:0"), HasSubstr("key " + folder_.Path("missing.key"))));
}

TEST_F(TlsSocketTest, WhoIsRefusedIsCountedAndLoggedAtAMeasuredPace) {
  ASSERT_EQ(Listen(), absl::OkStatus());
  client_options_.certificate_file = client_options_.key_file = "";

  ::testing::internal::CaptureStderr();
  EXPECT_FALSE(GetsIn());
  EXPECT_FALSE(GetsIn());
  EXPECT_FALSE(GetsIn());
  const std::string log = ::testing::internal::GetCapturedStderr();

  EXPECT_EQ(listener_->refused(), 3u);
  EXPECT_TRUE(accepted_.empty());
  EXPECT_THAT(log, AllOf(HasSubstr(" peer=127.0.0.1:"), HasSubstr("did not return a certificate")));
  EXPECT_LT(std::count(log.begin(), log.end(), '\n'), 3) << log;
}

TEST_F(TlsSocketTest, ClientThatTheServerCannotProveItselfToSaysWhy) {
  client_options_.server_name = "other.example.org";
  ASSERT_EQ(Listen(), absl::OkStatus());

  EXPECT_THAT(Text(Connect().status()),
              AllOf(HasSubstr(address_.ToString()), HasSubstr("hostname mismatch")));
}

TEST_F(TlsSocketTest, ServerIsKnownByItsNumberOrItsNameInTheCertificate) {
  ASSERT_EQ(Listen(), absl::OkStatus());
  EXPECT_TRUE(GetsIn());

  client_options_.server_name = "LocalHost";
  EXPECT_TRUE(GetsIn());

  client_options_.server_name = "127.0.0.2";
  EXPECT_FALSE(GetsIn());
}

TEST_F(TlsSocketTest, PlainBytesAreRefused) {
  ASSERT_EQ(Listen(), absl::OkStatus());
  const auto plain = ConnectPlainly();

  plain->Send("PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n");
  loop_.RunUntil([&] { return plain->closed(); });

  EXPECT_EQ(listener_->refused(), 1u);
  EXPECT_TRUE(accepted_.empty());
}

TEST_F(TlsSocketTest, SilentPeerIsClosedAtTheDeadline) {
  server_options_.handshake_timeout = absl::Milliseconds(20);
  ASSERT_EQ(Listen(), absl::OkStatus());
  const auto plain = ConnectPlainly();

  loop_.RunUntil([&] { return plain->closed(); });

  EXPECT_EQ(listener_->refused(), 1u);
}

TEST_F(TlsSocketTest, TooManyHandshakesEndTheOldest) {
  server_options_.max_handshakes = 2;
  ASSERT_EQ(Listen(), absl::OkStatus());
  const auto first = ConnectPlainly();
  const auto second = ConnectPlainly();

  const auto client = Connect();
  ASSERT_TRUE(client.ok()) << client.status();
  loop_.RunUntil([&] { return first->closed() && !accepted_.empty(); });

  EXPECT_FALSE(second->closed());
  EXPECT_EQ(listener_->refused(), 1u);
}

TEST_F(TlsSocketTest, WithoutRoomAHandshakeTakesThePlaceOfTheOldest) {
  std::size_t places = 2;
  has_room_ = [&] { return listener_->handshakes() < places; };
  ASSERT_EQ(Listen(), absl::OkStatus());
  const auto first = ConnectPlainly();
  const auto second = ConnectPlainly();

  const auto client = Connect();
  ASSERT_TRUE(client.ok()) << client.status();
  loop_.RunUntil([&] { return first->closed() && !accepted_.empty(); });

  EXPECT_FALSE(second->closed());
  EXPECT_EQ(listener_->handshakes(), 1u);
}

TEST_F(TlsSocketTest, WithoutAnyRoomThereIsOneHandshakeAtATime) {
  has_room_ = [] { return false; };
  ASSERT_EQ(Listen(), absl::OkStatus());

  const auto client = Connect();

  EXPECT_TRUE(client.ok()) << client.status();
}

TEST_F(TlsSocketTest, NewCertificateIsServedWithoutARestart) {
  ASSERT_EQ(Listen(), absl::OkStatus());
  const auto old_client = Connect();
  ASSERT_TRUE(old_client.ok()) << old_client.status();
  EXPECT_EQ(ServerSubject(), "CN=first");

  WriteServerCertificate("second");

  EXPECT_EQ(ServerSubject(), "CN=second");
  EXPECT_FALSE((*old_client)->closed());
}

TEST_F(TlsSocketTest, FilesThatCannotBeUsedLeaveTheFormerOnesAndAreLoggedOnce) {
  ASSERT_EQ(Listen(), absl::OkStatus());

  ::testing::internal::CaptureStderr();
  folder_.Write("server.pem", "half a file");
  EXPECT_EQ(ServerSubject(), "CN=first");
  EXPECT_EQ(ServerSubject(), "CN=first");
  const std::string log = ::testing::internal::GetCapturedStderr();
  EXPECT_THAT(log, HasSubstr("certificate " + folder_.Path("server.pem")));
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;

  WriteServerCertificate("second");
  EXPECT_EQ(ServerSubject(), "CN=second");
}

TEST_F(TlsSocketTest, CertificateThatIsRevokedLaterGetsInNoMore) {
  server_options_.crl_file = folder_.Write("crl.pem", ca_.Crl({}));
  const long serial = WriteClientCertificate();
  ASSERT_EQ(Listen(), absl::OkStatus());
  EXPECT_TRUE(GetsIn());

  folder_.Write("crl.pem", ca_.Crl({serial}));
  EXPECT_FALSE(GetsIn());

  WriteClientCertificate();
  EXPECT_TRUE(GetsIn());
}

TEST_F(TlsSocketTest, AuthorityThatIsReplacedTakesItsClientsWithIt) {
  ASSERT_EQ(Listen(), absl::OkStatus());
  EXPECT_TRUE(GetsIn());

  client_options_.ca_file = folder_.Write("old-ca.pem", ca_.certificate());
  folder_.Write("ca.pem", testing::TestCa("another CA").certificate());

  EXPECT_FALSE(GetsIn());
}

TEST_F(TlsSocketTest, ConnectorThatIsDestroyedInTheHandshakeIsSilent) {
  ASSERT_EQ(Listen(), absl::OkStatus());
  const auto context = TlsClientContext::Create(client_options_);
  ASSERT_TRUE(context.ok());
  for (int steps = 0; steps < 6; ++steps) {
    auto connector = ConnectTls(loop_, address_, **context, [](auto) {});
    for (int step = 0; step < steps; ++step) loop_.RunPending();

    connector = nullptr;
  }

  EXPECT_TRUE(GetsIn());
}

TEST_F(TlsSocketTest, ConnectingToNobodyNamesTheAddress) {
  ASSERT_EQ(Listen(), absl::OkStatus());
  listener_ = nullptr;

  EXPECT_THAT(Text(Connect().status()), HasSubstr(address_.ToString()));
}

TEST_F(TlsSocketTest, ListenerMayGoWhileHandshakesGoOn) {
  ASSERT_EQ(Listen(), absl::OkStatus());
  const auto plain = ConnectPlainly();
  plain->Send("\x16\x03\x01");
  loop_.RunPending();

  listener_ = nullptr;

  loop_.RunUntil([&] { return plain->closed(); });
  EXPECT_TRUE(accepted_.empty());
}

}  // namespace
}  // namespace varnic::net
