#ifndef CORE_NET_TESTING_TEST_CERTIFICATES_H_
#define CORE_NET_TESTING_TEST_CERTIFICATES_H_

#include <memory>
#include <string>
#include <vector>

#include "absl/time/time.h"

namespace varnic::net::testing {

// A folder in the tests' temporary directory, which goes with this object.
class TestFolder {
 public:
  TestFolder();
  TestFolder(const TestFolder&) = delete;
  TestFolder& operator=(const TestFolder&) = delete;
  ~TestFolder();

  std::string Path(const std::string& name) const { return path_ + "/" + name; }
  // Replaces the file at once, as an administrator's tool does, and returns its path.
  std::string Write(const std::string& name, const std::string& contents) const;

 private:
  std::string path_;
};

// What a certificate is to say.
struct CertificateSpec {
  std::string common_name = "test";
  // In OpenSSL's notation: "DNS:localhost,IP:127.0.0.1,URI:spiffe://example.org/reader".
  std::string alternative_names;
  absl::Duration valid_from = -absl::Hours(1);  // From now.
  absl::Duration valid_until = absl::Hours(1);
};

// In PEM form.
struct IssuedCertificate {
  std::string certificate;
  std::string key;
  long serial = 0;
};

// A new private key in PEM form, encrypted with `passphrase`.
std::string NewEncryptedKey(const std::string& passphrase);

// A certificate authority that exists for one test. Every key that it makes is new.
class TestCa {
 public:
  explicit TestCa(const std::string& name = "test CA");
  TestCa(const TestCa&) = delete;
  TestCa& operator=(const TestCa&) = delete;
  ~TestCa();

  IssuedCertificate Issue(const CertificateSpec& spec);

  // In PEM form.
  std::string certificate() const;
  std::string Crl(const std::vector<long>& revoked_serials,
                  absl::Duration valid_until = absl::Hours(1)) const;

 private:
  struct Keys;
  std::unique_ptr<Keys> keys_;
};

}  // namespace varnic::net::testing

#endif  // CORE_NET_TESTING_TEST_CERTIFICATES_H_
