#include "core/net/tls_context.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <utility>

#include "core/net/testing/test_certificates.h"

namespace varnic::net {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class TlsContextTest : public ::testing::Test {
 protected:
  TlsContextTest() {
    const testing::IssuedCertificate issued = ca_.Issue({});
    pem_.certificate.text = issued.certificate;
    pem_.key.text = issued.key;
    pem_.ca.text = ca_.certificate();
    pem_.crl.text = ca_.Crl({7});
  }

  std::string ServerFailure(const std::function<void(TlsPem&)>& change) const {
    TlsPem pem = pem_;
    change(pem);
    return std::string(MakeServerSslContext(pem).status().message());
  }

  TlsServerOptions WriteFiles() const {
    TlsServerOptions options;
    options.certificate_file = folder_.Write("cert.pem", pem_.certificate.text);
    options.key_file = folder_.Write("key.pem", pem_.key.text);
    options.client_ca_file = folder_.Write("ca.pem", pem_.ca.text);
    options.crl_file = folder_.Write("crl.pem", pem_.crl.text);
    return options;
  }

  testing::TestFolder folder_;
  testing::TestCa ca_;
  TlsPem pem_;
};

TEST_F(TlsContextTest, GoodFilesMakeAContext) {
  EXPECT_TRUE(MakeServerSslContext(pem_).ok());
  EXPECT_TRUE(MakeClientSslContext(pem_).ok());
  EXPECT_TRUE(TlsServerContext::Create(WriteFiles()).ok());
}

TEST_F(TlsContextTest, EachPartThatIsWrongIsNamed) {
  const std::string damaged = "-----BEGIN CERTIFICATE-----\nMIIB\n-----END CERTIFICATE-----\n";

  EXPECT_THAT(ServerFailure([](TlsPem& pem) { pem.certificate.text = "no PEM"; }),
              StartsWith("certificate: "));
  EXPECT_THAT(ServerFailure([&](TlsPem& pem) { pem.certificate.text = damaged; }),
              StartsWith("certificate: "));
  EXPECT_THAT(ServerFailure([&](TlsPem& pem) { pem.certificate.text += damaged; }),
              StartsWith("certificate: "));
  EXPECT_THAT(ServerFailure([](TlsPem& pem) { pem.key.text = "no PEM"; }), StartsWith("key: "));
  EXPECT_THAT(ServerFailure([this](TlsPem& pem) { pem.key.text = ca_.Issue({}).key; }),
              StartsWith("key: not that of the certificate"));
  EXPECT_THAT(ServerFailure([&](TlsPem& pem) { pem.ca.text += damaged; }), StartsWith("CA: "));
  EXPECT_THAT(ServerFailure([](TlsPem& pem) { pem.crl.text = pem.certificate.text; }),
              StartsWith("CRL: "));
  EXPECT_THAT(ServerFailure([](TlsPem& pem) { pem.ca.text = ""; }),
              StartsWith("CRL: of no use without a CA"));
}

TEST_F(TlsContextTest, KeyWithAPassphraseIsRefusedWithoutAsking) {
  EXPECT_THAT(ServerFailure([](TlsPem& pem) { pem.key.text = testing::NewEncryptedKey("secret"); }),
              StartsWith("key: "));
}

TEST_F(TlsContextTest, ClientNeedsItsCertificateAndItsKeyTogether) {
  TlsPem pem = pem_;
  pem.key.text = "";
  EXPECT_THAT(std::string(MakeClientSslContext(pem).status().message()),
              StartsWith("certificate: of no use without its key"));

  pem = pem_;
  pem.certificate.text = "";
  EXPECT_THAT(std::string(MakeClientSslContext(pem).status().message()),
              StartsWith("key: of no use without its certificate"));
}

TEST_F(TlsContextTest, FilesThatAreCutAnywhereAreRefusedOrRead) {
  for (TlsPem::Part TlsPem::*part :
       {&TlsPem::certificate, &TlsPem::key, &TlsPem::ca, &TlsPem::crl}) {
    const std::size_t whole = (pem_.*part).text.size();
    for (std::size_t size = 0; size + 30 < whole; size += 13) {
      TlsPem pem = pem_;
      (pem.*part).text.resize(size);

      // No revocation list, and then nothing to verify either, is a fine configuration.
      const bool may_be_absent = part == &TlsPem::crl && size == 0;
      EXPECT_EQ(MakeServerSslContext(pem).ok(), may_be_absent) << (pem.*part).name << " " << size;
    }
  }
}

TEST_F(TlsContextTest, FileThatCannotBeUsedIsNamed) {
  const TlsServerOptions good = WriteFiles();
  const std::string empty = folder_.Write("empty", "");
  const std::string missing = folder_.Path("missing");
  for (const auto& [option, name] : {std::pair(&TlsServerOptions::certificate_file, "certificate "),
                                     std::pair(&TlsServerOptions::key_file, "key "),
                                     std::pair(&TlsServerOptions::client_ca_file, "CA "),
                                     std::pair(&TlsServerOptions::crl_file, "CRL ")}) {
    for (const std::string& path : {empty, missing}) {
      TlsServerOptions options = good;
      options.*option = path;

      const absl::Status status = TlsServerContext::Create(options).status();

      EXPECT_THAT(std::string(status.message()), StartsWith(name + path + ": ")) << status;
    }
  }
  TlsClientOptions client;
  client.ca_file = missing;
  EXPECT_THAT(std::string(TlsClientContext::Create(client).status().message()),
              AllOf(StartsWith("CA "), HasSubstr(missing)));
}

}  // namespace
}  // namespace varnic::net
