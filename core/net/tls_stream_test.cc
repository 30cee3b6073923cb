#include "core/net/tls_stream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "core/net/testing/fake_byte_stream.h"
#include "core/net/testing/test_certificates.h"

namespace varnic::net {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

// One end of a TLS connection whose socket is only memory: what it hears, and a peer through which
// a test moves its bytes.
class End : private ByteStream::Visitor {
 public:
  End(EventLoop& loop, SslHandle ssl, absl::Duration timeout = absl::InfiniteDuration()) {
    Peer below;
    below.address = "192.0.2.7:50112";
    wire_.set_identity(below);
    stream_ = std::make_unique<TlsStream>(loop, wire_.MakeStream(), std::move(ssl));
    stream_->Handshake(timeout, [this](const absl::Status& status) {
      ++handshakes_;
      handshake_ = status;
      if (close_after_handshake_) return Close();
      if (status.ok()) stream_->Start(*this);
    });
  }

  // Sends all of `bytes`, as the peer reads them.
  void Send(std::string bytes) {
    unsent_ += std::move(bytes);
    Write();
  }
  void Close() { stream_ = nullptr; }
  void CloseAfterHandshake() { close_after_handshake_ = true; }
  void CloseWhenBytesCome() { close_when_bytes_come_ = true; }

  testing::FakePeer& wire() { return wire_; }
  TlsStream* stream() { return stream_.get(); }
  int handshakes() const { return handshakes_; }
  bool open() const { return handshakes_ == 1 && handshake_.ok(); }
  const absl::Status& handshake() const { return handshake_; }
  const std::string& received() const { return received_; }
  int times_writable() const { return times_writable_; }
  bool all_sent() const { return unsent_.empty(); }
  int closes() const { return closes_; }
  const absl::Status& close_status() const { return close_status_; }

 private:
  void OnBytes(std::string_view bytes) override {
    received_ += bytes;
    if (close_when_bytes_come_) Close();
  }
  void OnWritable() override {
    ++times_writable_;
    Write();
  }
  void OnClosed(const absl::Status& status) override {
    ++closes_;
    close_status_ = status;
  }

  void Write() { unsent_.erase(0, stream_->Write(unsent_)); }

  testing::FakePeer wire_;  // Outlives its stream.
  std::unique_ptr<TlsStream> stream_;
  int handshakes_ = 0;
  absl::Status handshake_;
  int times_writable_ = 0;
  std::string unsent_;
  std::string received_;
  int closes_ = 0;
  absl::Status close_status_;
  bool close_after_handshake_ = false;
  bool close_when_bytes_come_ = false;
};

// Pem of an authority, a server and a client of it.
class TlsStreamTest : public ::testing::Test {
 protected:
  TlsStreamTest() {
    CertificateFor(server_pem_, ca_, "DNS:localhost,IP:127.0.0.1");
    CertificateFor(client_pem_, ca_, "URI:spiffe://example.org/reader,DNS:reader.example.org");
    server_pem_.ca.text = ca_.certificate();
    client_pem_.ca.text = ca_.certificate();
  }

  static void CertificateFor(TlsPem& pem, testing::TestCa& ca, const std::string& names,
                             testing::CertificateSpec spec = {}) {
    spec.alternative_names = names;
    const testing::IssuedCertificate issued = ca.Issue(spec);
    pem.certificate.text = issued.certificate;
    pem.key.text = issued.key;
  }

  // A connection of contexts made from the two.
  SslHandle ServerSsl() {
    auto context = MakeServerSslContext(server_pem_);
    EXPECT_TRUE(context.ok()) << context.status();
    return SslHandle(SSL_new(context->get()));
  }
  SslHandle ClientSsl() {
    auto context = MakeClientSslContext(client_pem_);
    EXPECT_TRUE(context.ok()) << context.status();
    SslHandle ssl(SSL_new(context->get()));
    SSL_set1_host(ssl.get(), "localhost");
    return ssl;
  }

  void Connect(SslHandle server, SslHandle client,
               absl::Duration timeout = absl::InfiniteDuration()) {
    server_ = std::make_unique<End>(loop_, std::move(server), timeout);
    client_ = std::make_unique<End>(loop_, std::move(client));
    loop_.RunPending();
  }
  void Connect() { Connect(ServerSsl(), ClientSsl()); }

  // Moves what both have written, in pieces, until there is nothing more to move.
  void Exchange(std::size_t piece_size = 1 << 20) {
    while (true) {
      const std::string to_server = client_->wire().Take();
      const std::string to_client = server_->wire().Take();
      if (to_server.empty() && to_client.empty()) break;
      server_->wire().SendInPieces(to_server, piece_size);
      client_->wire().SendInPieces(to_client, piece_size);
      loop_.RunPending();
    }
  }

  // Both handshakes; then what the server says of it.
  absl::Status ServerStatus() {
    Exchange();
    EXPECT_EQ(server_->handshakes(), 1);
    return server_->handshake();
  }

  EventLoop loop_;
  testing::TestCa ca_;
  TlsPem server_pem_;
  TlsPem client_pem_;
  std::unique_ptr<End> server_;
  std::unique_ptr<End> client_;
};

std::string Text(const absl::Status& status) {
  return std::string(status.message());
}

TEST_F(TlsStreamTest, BytesGoBothWays) {
  Connect();
  Exchange();
  ASSERT_TRUE(server_->open() && client_->open()) << server_->handshake() << client_->handshake();

  client_->Send("from the client");
  server_->Send("from the server");
  Exchange();

  EXPECT_EQ(server_->received(), "from the client");
  EXPECT_EQ(client_->received(), "from the server");
}

TEST_F(TlsStreamTest, NothingTravelsInTheClear) {
  Connect();
  Exchange();

  client_->Send("a secret");

  EXPECT_EQ(client_->wire().Take().find("secret"), std::string::npos);
}

TEST_F(TlsStreamTest, TheServerKnowsWhoTheClientIs) {
  Connect();
  Exchange();

  const Peer& peer = server_->stream()->peer();

  EXPECT_EQ(peer.kind, Peer::Kind::kTls);
  EXPECT_EQ(peer.address, "192.0.2.7:50112");
  ASSERT_TRUE(peer.certificate.has_value());
  EXPECT_EQ(peer.certificate->subject, "CN=test");
  EXPECT_THAT(peer.certificate->uris, ElementsAre("spiffe://example.org/reader"));
  EXPECT_THAT(peer.certificate->dns_names, ElementsAre("reader.example.org"));
  EXPECT_EQ(peer.certificate->fingerprint.size(), 64u);
}

TEST_F(TlsStreamTest, ASplitAnywhereDoesNotMatter) {
  const std::string bytes(100'000, 'x');
  for (const std::size_t piece_size : {1u, 2u, 5u, 7u, 1021u, 16'389u}) {
    Connect();
    Exchange(piece_size);
    ASSERT_TRUE(server_->open() && client_->open()) << piece_size;

    client_->Send(bytes);
    server_->Send(bytes + "!");
    Exchange(piece_size);

    EXPECT_TRUE(server_->received() == bytes) << piece_size;
    EXPECT_TRUE(client_->received() == bytes + "!") << piece_size;
  }
}

TEST_F(TlsStreamTest, BytesBehindTheHandshakeInOneReadArrive) {
  Connect();
  server_->wire().Send(client_->wire().Take());
  client_->wire().Send(server_->wire().Take());
  ASSERT_TRUE(client_->open());

  client_->Send("early");
  server_->wire().Send(client_->wire().Take());

  EXPECT_EQ(server_->received(), "early");
}

TEST_F(TlsStreamTest, LargeTransfersGoOnAsThePeerReads) {
  std::string bytes;
  for (int i = 0; bytes.size() < (3 << 20); ++i) bytes += std::to_string(i);
  Connect();
  Exchange();
  server_->wire().LimitRoom(0);
  client_->wire().LimitRoom(0);

  server_->Send(bytes);
  client_->Send(bytes);
  EXPECT_FALSE(server_->all_sent());
  EXPECT_FALSE(client_->all_sent());
  while (server_->received().size() < bytes.size() || client_->received().size() < bytes.size()) {
    server_->wire().MakeRoom(9973);
    client_->wire().MakeRoom(99'991);
    Exchange();
  }

  EXPECT_TRUE(server_->received() == bytes);
  EXPECT_TRUE(client_->received() == bytes);
}

TEST_F(TlsStreamTest, FarewellIsHeardOnceBehindTheBytes) {
  Connect();
  Exchange();

  client_->Send("last words");
  client_->Close();
  Exchange();
  server_->wire().Close();

  EXPECT_EQ(server_->received(), "last words");
  EXPECT_EQ(server_->closes(), 1);
  EXPECT_EQ(server_->close_status(), absl::OkStatus());
}

TEST_F(TlsStreamTest, SaysWhatItHoldsAndWhenThatHasGone) {
  Connect();
  Exchange();
  EXPECT_EQ(server_->stream()->unwritten(), 0u);
  server_->wire().LimitRoom(0);

  server_->Send(std::string(1000, 'x'));
  EXPECT_TRUE(server_->all_sent());
  EXPECT_GE(server_->stream()->unwritten(), 1000u);
  EXPECT_EQ(server_->times_writable(), 0);
  server_->wire().MakeRoom();

  EXPECT_EQ(server_->stream()->unwritten(), 0u);
  EXPECT_EQ(server_->times_writable(), 1);
}

TEST_F(TlsStreamTest, EndOfWritingWaitsForWhatIsStillHeld) {
  Connect();
  Exchange();
  server_->wire().LimitRoom(0);
  server_->Send(std::string(60'000, 'x'));

  server_->stream()->ShutdownWrite();
  for (int turn = 0; turn < 7; ++turn) {
    EXPECT_FALSE(server_->wire().has_farewell()) << turn;
    server_->wire().MakeRoom(10'000);
  }
  Exchange();

  EXPECT_TRUE(server_->wire().has_farewell());
  EXPECT_EQ(client_->received().size(), 60'000u);
  EXPECT_EQ(client_->closes(), 1);
  EXPECT_EQ(client_->close_status(), absl::OkStatus());
}

TEST_F(TlsStreamTest, LossOfTheStreamBelowIsHeardOnce) {
  Connect();
  Exchange();

  server_->wire().Break();

  EXPECT_EQ(server_->closes(), 1);
  EXPECT_THAT(Text(server_->close_status()), HasSubstr("cable"));
}

TEST_F(TlsStreamTest, ForgedBytesEndTheConnectionOnce) {
  Connect();
  Exchange();
  client_->Send("to be forged");
  std::string bytes = client_->wire().Take();
  bytes.back() = static_cast<char>(bytes.back() ^ 1);

  server_->wire().Send(bytes);
  server_->wire().Send("more");

  EXPECT_EQ(server_->received(), "");
  EXPECT_EQ(server_->closes(), 1);
  EXPECT_FALSE(server_->close_status().ok());
}

TEST_F(TlsStreamTest, StreamMayBeDestroyedWhenBytesCome) {
  Connect();
  Exchange();
  server_->CloseWhenBytesCome();

  client_->Send("first");
  client_->Send("second");
  Exchange();

  EXPECT_EQ(server_->received(), "firstsecond");
  EXPECT_EQ(server_->closes(), 0);
  EXPECT_EQ(client_->closes(), 1);
}

TEST_F(TlsStreamTest, StreamMayBeDestroyedWhenTheHandshakeEnds) {
  for (const bool good : {true, false}) {
    if (!good) client_pem_.certificate.text = client_pem_.key.text = "";
    Connect();
    server_->CloseAfterHandshake();

    Exchange();

    EXPECT_EQ(server_->handshakes(), 1);
    EXPECT_EQ(server_->handshake().ok(), good);
  }
}

TEST_F(TlsStreamTest, ClientWithoutACertificateIsRefused) {
  client_pem_.certificate.text = client_pem_.key.text = "";
  Connect();

  EXPECT_THAT(Text(ServerStatus()), HasSubstr("peer did not return a certificate"));
  EXPECT_THAT(Text(client_->close_status()), HasSubstr("alert certificate required"));
}

TEST_F(TlsStreamTest, ClientWithoutACertificateIsServedWhenNoneIsAskedFor) {
  client_pem_.certificate.text = client_pem_.key.text = "";
  server_pem_.ca.text = "";
  Connect();

  EXPECT_EQ(ServerStatus(), absl::OkStatus());
  EXPECT_EQ(server_->stream()->peer().certificate, std::nullopt);
}

TEST_F(TlsStreamTest, CertificateOfAnotherAuthorityIsRefused) {
  testing::TestCa other("test CA");  // Of the same name.
  CertificateFor(client_pem_, other, "URI:spiffe://example.org/reader");
  Connect();

  EXPECT_FALSE(ServerStatus().ok());
  EXPECT_THAT(Text(server_->handshake()), HasSubstr("certificate is not accepted"));
}

TEST_F(TlsStreamTest, CertificateOutsideItsTimeIsRefused) {
  testing::CertificateSpec expired;
  expired.valid_until = -absl::Minutes(1);
  CertificateFor(client_pem_, ca_, "DNS:reader.example.org", expired);
  Connect();
  EXPECT_THAT(Text(ServerStatus()), HasSubstr("certificate has expired"));

  testing::CertificateSpec early;
  early.valid_from = absl::Minutes(1);
  CertificateFor(client_pem_, ca_, "DNS:reader.example.org", early);
  Connect();
  EXPECT_THAT(Text(ServerStatus()), HasSubstr("not yet valid"));
}

TEST_F(TlsStreamTest, CertificateOnTheRevocationListIsRefused) {
  testing::CertificateSpec spec;
  const testing::IssuedCertificate revoked = ca_.Issue(spec);
  server_pem_.crl.text = ca_.Crl({revoked.serial});
  Connect();
  EXPECT_EQ(ServerStatus(), absl::OkStatus());

  client_pem_.certificate.text = revoked.certificate;
  client_pem_.key.text = revoked.key;
  Connect();
  EXPECT_THAT(Text(ServerStatus()), HasSubstr("certificate revoked"));
}

TEST_F(TlsStreamTest, RevocationListPastItsDateRefusesEverybody) {
  server_pem_.crl.text = ca_.Crl({}, -absl::Minutes(1));
  Connect();

  EXPECT_THAT(Text(ServerStatus()), HasSubstr("CRL has expired"));
}

TEST_F(TlsStreamTest, RevocationListOfAnotherAuthorityRefusesEverybody) {
  server_pem_.crl.text = testing::TestCa("another CA").Crl({});
  Connect();

  EXPECT_THAT(Text(ServerStatus()), HasSubstr("unable to get certificate CRL"));
}

TEST_F(TlsStreamTest, ServerThatTheClientDoesNotTrustIsRefused) {
  client_pem_.ca.text = testing::TestCa().certificate();
  Connect();
  Exchange();

  EXPECT_THAT(Text(client_->handshake()), HasSubstr("certificate is not accepted"));
}

TEST_F(TlsStreamTest, ServerOfAnotherNameIsRefused) {
  SslHandle client = ClientSsl();
  SSL_set1_host(client.get(), "other.example.org");
  Connect(ServerSsl(), std::move(client));
  Exchange();

  EXPECT_THAT(Text(client_->handshake()), HasSubstr("hostname mismatch"));
}

TEST_F(TlsStreamTest, ClientThatOffersAnotherProtocolIsRefused) {
  const unsigned char http1[] = "\x08http/1.1";
  SslHandle client = ClientSsl();
  SSL_set_alpn_protos(client.get(), http1, sizeof(http1) - 1);
  Connect(ServerSsl(), std::move(client));

  EXPECT_THAT(Text(ServerStatus()), HasSubstr("no application protocol"));
  EXPECT_THAT(Text(client_->handshake()), HasSubstr("no application protocol"));
}

TEST_F(TlsStreamTest, ClientThatOffersH2AmongOthersIsServed) {
  const unsigned char both[] = "\x08http/1.1\x02h2";
  SslHandle client = ClientSsl();
  SSL_set_alpn_protos(client.get(), both, sizeof(both) - 1);
  Connect(ServerSsl(), std::move(client));

  EXPECT_EQ(ServerStatus(), absl::OkStatus());
}

TEST_F(TlsStreamTest, ClientThatOffersNoProtocolIsRefused) {
  SslHandle client = ClientSsl();
  SSL_set_alpn_protos(client.get(), nullptr, 0);
  Connect(ServerSsl(), std::move(client));

  EXPECT_THAT(Text(ServerStatus()), HasSubstr("h2"));
}

TEST_F(TlsStreamTest, Tls12IsServedAndTls11IsNot) {
  for (const int version : {TLS1_2_VERSION, TLS1_1_VERSION}) {
    SslHandle client = ClientSsl();
    SSL_set_security_level(client.get(), 0);
    SSL_set_cipher_list(client.get(), "ALL");
    SSL_set_min_proto_version(client.get(), version);
    SSL_set_max_proto_version(client.get(), version);
    Connect(ServerSsl(), std::move(client));

    const absl::Status status = ServerStatus();

    if (version == TLS1_2_VERSION) {
      EXPECT_EQ(status, absl::OkStatus());
    } else {
      EXPECT_THAT(Text(status), HasSubstr("unsupported protocol"));
    }
  }
}

TEST_F(TlsStreamTest, NoSessionCanBeResumed) {
  SslHandle client = ClientSsl();
  SSL* ssl = client.get();
  Connect(ServerSsl(), std::move(client));
  Exchange();
  ASSERT_TRUE(client_->open());

  EXPECT_EQ(SSL_SESSION_is_resumable(SSL_get0_session(ssl)), 0);
}

TEST_F(TlsStreamTest, PlainBytesFailTheHandshake) {
  for (const std::string bytes : {"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n", "GET / HTTP/1.1\r\n\r\n"}) {
    Connect();

    server_->wire().Send(bytes);

    EXPECT_EQ(server_->handshakes(), 1);
    EXPECT_FALSE(server_->handshake().ok());
    server_->wire().Send(bytes);
    EXPECT_EQ(server_->handshakes(), 1);
  }
}

TEST_F(TlsStreamTest, HalfAHelloIsEndedByTheDeadline) {
  Connect(ServerSsl(), ClientSsl(), absl::Milliseconds(20));
  const std::string hello = client_->wire().Take();

  server_->wire().Send(hello.substr(0, hello.size() / 2));
  ASSERT_EQ(server_->handshakes(), 0);
  loop_.RunUntil([&] { return server_->handshakes() > 0; });

  EXPECT_EQ(server_->handshake().code(), absl::StatusCode::kDeadlineExceeded);
}

TEST_F(TlsStreamTest, DeadlineDoesNotCountAfterTheHandshake) {
  client_ = std::make_unique<End>(loop_, ClientSsl());
  loop_.RunPending();
  server_ = std::make_unique<End>(loop_, ServerSsl(), absl::Milliseconds(1));
  // No time passes for the loop until the handshake is done.
  server_->wire().Send(client_->wire().Take());
  client_->wire().Send(server_->wire().Take());
  server_->wire().Send(client_->wire().Take());
  ASSERT_TRUE(server_->open());
  bool later = false;
  Timer timer(loop_);
  timer.Start(absl::Milliseconds(5), [&] { later = true; });

  loop_.RunUntil([&] { return later; });

  EXPECT_EQ(server_->handshakes(), 1);
}

TEST_F(TlsStreamTest, PeerMayLeaveAnywhereInTheHandshake) {
  bool ended_before = true;
  for (std::size_t limit = 0; ended_before; limit += 41) {
    Connect();
    std::size_t sent = 0;
    while (sent < limit) {
      const std::string bytes = client_->wire().Take().substr(0, limit - sent);
      if (bytes.empty()) break;
      sent += bytes.size();
      server_->wire().SendInPieces(bytes, 1000);
      client_->wire().Send(server_->wire().Take());
    }
    ended_before = server_->handshakes() == 0;

    if (limit % 2 == 0) server_->wire().Close();
    if (limit % 2 == 1) server_->wire().Break();

    EXPECT_EQ(server_->handshakes(), 1) << limit;
    EXPECT_EQ(server_->open(), !ended_before) << limit;
  }
}

TEST_F(TlsStreamTest, StreamThatIsDestroyedInTheHandshakeIsSilent) {
  Connect();
  server_->wire().Send(client_->wire().Take());
  EXPECT_NE(server_->wire().Take(), "");

  server_->Close();
  loop_.RunPending();

  EXPECT_EQ(server_->handshakes(), 0);
  EXPECT_FALSE(server_->wire().open());
}

}  // namespace
}  // namespace varnic::net
