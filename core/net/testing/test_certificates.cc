#include "core/net/testing/test_certificates.h"

#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <system_error>

#include "core/common/rpc/fatal.h"

namespace varnic::net::testing {
namespace {

template <auto Free>
struct Deleter {
  template <class Object>
  void operator()(Object* object) const {
    Free(object);
  }
};
using BioHandle = std::unique_ptr<BIO, Deleter<BIO_free>>;
using X509Handle = std::unique_ptr<X509, Deleter<X509_free>>;
using KeyHandle = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;

KeyHandle NewKey() {
  KeyHandle key(EVP_EC_gen("P-256"));
  VARNIC_CHECK(key != nullptr);
  return key;
}

// What `write` writes into a BIO.
template <class Write>
std::string Pem(Write write) {
  const BioHandle bio(BIO_new(BIO_s_mem()));
  VARNIC_CHECK(write(bio.get()) == 1);
  std::string text(BIO_ctrl_pending(bio.get()), '\0');
  BIO_read(bio.get(), text.data(), static_cast<int>(text.size()));
  return text;
}

std::string PemOf(X509* certificate) {
  return Pem([&](BIO* bio) { return PEM_write_bio_X509(bio, certificate); });
}

void SetName(X509_NAME* name, const std::string& common_name) {
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_UTF8,
                             reinterpret_cast<const unsigned char*>(common_name.c_str()), -1, -1,
                             0);
}

void AddExtension(X509* certificate, int id, const std::string& value) {
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, nullptr, id, value.c_str());
  VARNIC_CHECK(extension != nullptr);
  X509_add_ext(certificate, extension, -1);
  X509_EXTENSION_free(extension);
}

X509Handle NewCertificate(EVP_PKEY* key, const CertificateSpec& spec, long serial) {
  X509Handle certificate(X509_new());
  X509_set_version(certificate.get(), X509_VERSION_3);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), serial);
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), absl::ToInt64Seconds(spec.valid_from));
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), absl::ToInt64Seconds(spec.valid_until));
  X509_set_pubkey(certificate.get(), key);
  SetName(X509_get_subject_name(certificate.get()), spec.common_name);
  return certificate;
}

}  // namespace

TestFolder::TestFolder() {
  const char* root = getenv("TEST_TMPDIR");
  std::string path = std::string(root != nullptr ? root : "/tmp") + "/varnic-tls-XXXXXX";
  VARNIC_CHECK(::mkdtemp(path.data()) != nullptr);
  path_ = path;
}

TestFolder::~TestFolder() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

std::string TestFolder::Write(const std::string& name, const std::string& contents) const {
  std::ofstream(Path(name + ".new"), std::ios::binary) << contents;
  std::filesystem::rename(Path(name + ".new"), Path(name));
  return Path(name);
}

std::string NewEncryptedKey(const std::string& passphrase) {
  const KeyHandle key = NewKey();
  return Pem([&](BIO* bio) {
    return PEM_write_bio_PKCS8PrivateKey(bio, key.get(), EVP_aes_256_cbc(), passphrase.data(),
                                         static_cast<int>(passphrase.size()), nullptr, nullptr);
  });
}

struct TestCa::Keys {
  KeyHandle key;
  X509Handle certificate;
  long last_serial = 1;
};

TestCa::TestCa(const std::string& name) : keys_(std::make_unique<Keys>()) {
  CertificateSpec spec;
  spec.common_name = name;
  spec.valid_from = -absl::Hours(48);
  spec.valid_until = absl::Hours(48);
  keys_->key = NewKey();
  keys_->certificate = NewCertificate(keys_->key.get(), spec, keys_->last_serial);
  X509* certificate = keys_->certificate.get();
  SetName(X509_get_issuer_name(certificate), name);
  AddExtension(certificate, NID_basic_constraints, "critical,CA:TRUE");
  AddExtension(certificate, NID_key_usage, "critical,keyCertSign,cRLSign");
  VARNIC_CHECK(X509_sign(certificate, keys_->key.get(), EVP_sha256()) > 0);
}

TestCa::~TestCa() = default;

IssuedCertificate TestCa::Issue(const CertificateSpec& spec) {
  const KeyHandle key = NewKey();
  const X509Handle certificate = NewCertificate(key.get(), spec, ++keys_->last_serial);
  X509_set_issuer_name(certificate.get(), X509_get_subject_name(keys_->certificate.get()));
  if (!spec.alternative_names.empty()) {
    AddExtension(certificate.get(), NID_subject_alt_name, spec.alternative_names);
  }
  VARNIC_CHECK(X509_sign(certificate.get(), keys_->key.get(), EVP_sha256()) > 0);
  return {PemOf(certificate.get()), Pem([&](BIO* bio) {
            return PEM_write_bio_PrivateKey(bio, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
          }),
          keys_->last_serial};
}

std::string TestCa::certificate() const {
  return PemOf(keys_->certificate.get());
}

std::string TestCa::Crl(const std::vector<long>& revoked_serials,
                        absl::Duration valid_until) const {
  const std::unique_ptr<X509_CRL, Deleter<X509_CRL_free>> crl(X509_CRL_new());
  X509_CRL_set_version(crl.get(), X509_CRL_VERSION_2);
  X509_CRL_set_issuer_name(crl.get(), X509_get_subject_name(keys_->certificate.get()));
  const std::unique_ptr<ASN1_TIME, Deleter<ASN1_TIME_free>> time(ASN1_TIME_new());
  X509_gmtime_adj(time.get(), -3600 * 24);
  X509_CRL_set1_lastUpdate(crl.get(), time.get());
  for (const long serial : revoked_serials) {
    X509_REVOKED* entry = X509_REVOKED_new();
    const std::unique_ptr<ASN1_INTEGER, Deleter<ASN1_INTEGER_free>> number(ASN1_INTEGER_new());
    ASN1_INTEGER_set(number.get(), serial);
    X509_REVOKED_set_serialNumber(entry, number.get());
    X509_REVOKED_set_revocationDate(entry, time.get());
    X509_CRL_add0_revoked(crl.get(), entry);
  }
  X509_gmtime_adj(time.get(), absl::ToInt64Seconds(valid_until));
  X509_CRL_set1_nextUpdate(crl.get(), time.get());
  X509_CRL_sort(crl.get());
  VARNIC_CHECK(X509_CRL_sign(crl.get(), keys_->key.get(), EVP_sha256()) > 0);
  return Pem([&](BIO* bio) { return PEM_write_bio_X509_CRL(bio, crl.get()); });
}

}  // namespace varnic::net::testing
