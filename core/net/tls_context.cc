#include "core/net/tls_context.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <string_view>
#include <utility>

#include "absl/strings/escaping.h"
#include "absl/strings/str_cat.h"
#include "base/logging.h"
#include "core/net/log_field.h"

namespace varnic::net {
namespace {

// "h2" in the form of RFC 7301: behind its length.
constexpr unsigned char kAlpn[] = {2, 'h', '2'};
// For TLS 1.2. What HTTP/2 forbids (RFC 9113, appendix A) is not among them.
constexpr const char* kCiphers = "ECDHE+AESGCM:ECDHE+CHACHA20";

template <auto Free>
struct Deleter {
  template <class Object>
  void operator()(Object* object) const {
    Free(object);
  }
};
using BioHandle = std::unique_ptr<BIO, Deleter<BIO_free>>;
using X509Handle = std::unique_ptr<X509, Deleter<X509_free>>;
using CrlHandle = std::unique_ptr<X509_CRL, Deleter<X509_CRL_free>>;
using KeyHandle = std::unique_ptr<EVP_PKEY, Deleter<EVP_PKEY_free>>;
using NamesHandle = std::unique_ptr<GENERAL_NAMES, Deleter<GENERAL_NAMES_free>>;

std::string ErrorText() {
  const unsigned long error = ERR_peek_error();
  const char* reason = ERR_reason_error_string(error);
  return reason != nullptr ? reason : absl::StrCat("error ", error);
}

absl::Status Failure(const TlsPem::Part& part, const std::string& why) {
  return absl::InvalidArgumentError(absl::StrCat(part.name, ": ", why));
}

BioHandle Read(const std::string& pem) {
  return BioHandle(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
}

// A key that is encrypted is refused, rather than asked for on a terminal.
int NoPassphrase(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*user_data*/) {
  return -1;
}

// Calls `use(object)` with each object that `read` finds; OK if there was one and all were sound.
template <class Handle, class Reader, class Use>
absl::Status ForEachPem(const TlsPem::Part& pem, Reader read, Use use) {
  ERR_clear_error();
  const BioHandle bio = Read(pem.text);
  int count = 0;
  while (Handle object{read(bio.get(), nullptr, NoPassphrase, nullptr)}) {
    ++count;
    if (!use(std::move(object))) return Failure(pem, ErrorText());
  }
  const bool at_end = ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
  if (!at_end) return Failure(pem, ErrorText());
  if (count == 0) return Failure(pem, "there is none in PEM form");
  ERR_clear_error();
  return absl::OkStatus();
}

absl::Status UseCertificates(SSL_CTX* context, const TlsPem::Part& pem) {
  bool own_done = false;
  return ForEachPem<X509Handle>(pem, PEM_read_bio_X509, [&](const X509Handle& certificate) {
    if (!std::exchange(own_done, true)) {
      return SSL_CTX_use_certificate(context, certificate.get()) == 1;
    }
    return SSL_CTX_add1_chain_cert(context, certificate.get()) == 1;
  });
}

absl::Status UseKey(SSL_CTX* context, const TlsPem::Part& pem) {
  ERR_clear_error();
  const KeyHandle key(
      PEM_read_bio_PrivateKey(Read(pem.text).get(), nullptr, NoPassphrase, nullptr));
  if (key == nullptr) return Failure(pem, ErrorText());
  if (SSL_CTX_use_PrivateKey(context, key.get()) != 1 || SSL_CTX_check_private_key(context) != 1) {
    return Failure(pem, absl::StrCat("not that of the certificate: ", ErrorText()));
  }
  return absl::OkStatus();
}

absl::Status UseRoots(SSL_CTX* context, const TlsPem::Part& pem) {
  return ForEachPem<X509Handle>(pem, PEM_read_bio_X509, [context](const X509Handle& certificate) {
    return X509_STORE_add_cert(SSL_CTX_get_cert_store(context), certificate.get()) == 1;
  });
}

absl::Status UseCrls(SSL_CTX* context, const TlsPem::Part& pem) {
  X509_STORE* store = SSL_CTX_get_cert_store(context);
  X509_STORE_set_flags(store, X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL);
  return ForEachPem<CrlHandle>(pem, PEM_read_bio_X509_CRL, [store](const CrlHandle& crl) {
    return X509_STORE_add_crl(store, crl.get()) == 1;
  });
}

int SelectAlpn(SSL* /*ssl*/, const unsigned char** selected, unsigned char* selected_size,
               const unsigned char* offered, unsigned offered_size, void* /*user_data*/) {
  unsigned char* choice = nullptr;
  if (SSL_select_next_proto(&choice, selected_size, kAlpn, sizeof(kAlpn), offered, offered_size) !=
      OPENSSL_NPN_NEGOTIATED) {
    return SSL_TLSEXT_ERR_ALERT_FATAL;
  }
  *selected = choice;
  return SSL_TLSEXT_ERR_OK;
}

SslContextHandle MakeContext(const SSL_METHOD* method) {
  SslContextHandle context(SSL_CTX_new(method));
  SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
  SSL_CTX_set_cipher_list(context.get(), kCiphers);
  SSL_CTX_set_options(context.get(),
                      SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION | SSL_OP_NO_TICKET);
  // A resumed session would not be checked against the roots and lists of now.
  SSL_CTX_set_session_cache_mode(context.get(), SSL_SESS_CACHE_OFF);
  SSL_CTX_set_num_tickets(context.get(), 0);
  // An idle connection keeps no buffers.
  SSL_CTX_set_mode(context.get(), SSL_MODE_RELEASE_BUFFERS);
  return context;
}

absl::Status AskForCertificates(SSL_CTX* context, const TlsPem::Part& ca) {
  if (absl::Status status = UseRoots(context, ca); !status.ok()) return status;
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
  // Tells clients which of their certificates may do.
  return ForEachPem<X509Handle>(ca, PEM_read_bio_X509, [context](const X509Handle& root) {
    return SSL_CTX_add_client_CA(context, root.get()) == 1;
  });
}

// Reads the file at `path` into `part`. Nothing is read for an empty path, but an empty file must
// not count as one that is not named.
absl::Status ReadInto(TlsPem::Part& part, const std::string& path) {
  if (path.empty()) return absl::OkStatus();
  absl::StatusOr<std::string> text = ReadConfigFile(path);
  if (!text.ok()) {
    return absl::InvalidArgumentError(absl::StrCat(part.name, " ", text.status().message()));
  }
  absl::StrAppend(&part.name, " ", path);
  part.text = *std::move(text);
  return part.text.empty() ? Failure(part, "the file is empty") : absl::OkStatus();
}

absl::StatusOr<TlsPem> ReadFiles(const std::string& certificate, const std::string& key,
                                 const std::string& ca, const std::string& crl) {
  TlsPem pem;
  absl::Status status = ReadInto(pem.certificate, certificate);
  if (status.ok()) status = ReadInto(pem.key, key);
  if (status.ok()) status = ReadInto(pem.ca, ca);
  if (status.ok()) status = ReadInto(pem.crl, crl);
  if (!status.ok()) return status;
  return pem;
}

absl::StatusOr<SslContextHandle> LoadServerContext(const TlsServerOptions& options) {
  const absl::StatusOr<TlsPem> pem = ReadFiles(options.certificate_file, options.key_file,
                                               options.client_ca_file, options.crl_file);
  if (!pem.ok()) return pem.status();
  return MakeServerSslContext(*pem);
}

bool IsPlain(std::string_view text) {
  for (const char c : text) {
    if (c <= ' ' || c > '~') return false;
  }
  return !text.empty();
}

void AddName(const ASN1_STRING* name, std::vector<std::string>& names) {
  const std::string_view text(reinterpret_cast<const char*>(ASN1_STRING_get0_data(name)),
                              static_cast<std::size_t>(ASN1_STRING_length(name)));
  if (IsPlain(text)) names.emplace_back(text);
}

void AddNames(const X509* certificate, CertificateIdentity& identity) {
  const NamesHandle names(static_cast<GENERAL_NAMES*>(
      X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
  for (int i = 0; i < sk_GENERAL_NAME_num(names.get()); ++i) {
    const GENERAL_NAME* name = sk_GENERAL_NAME_value(names.get(), i);
    if (name->type == GEN_URI) AddName(name->d.uniformResourceIdentifier, identity.uris);
    if (name->type == GEN_DNS) AddName(name->d.dNSName, identity.dns_names);
    if (name->type == GEN_EMAIL) AddName(name->d.rfc822Name, identity.emails);
  }
}

std::string Subject(const X509* certificate) {
  const BioHandle bio(BIO_new(BIO_s_mem()));
  // RFC 2253 escapes everything that could be taken for something else in a log.
  X509_NAME_print_ex(bio.get(), X509_get_subject_name(certificate), 0, XN_FLAG_RFC2253);
  std::string text(BIO_ctrl_pending(bio.get()), '\0');
  BIO_read(bio.get(), text.data(), static_cast<int>(text.size()));
  return text;
}

std::string Fingerprint(const X509* certificate) {
  std::string digest(EVP_MAX_MD_SIZE, '\0');
  unsigned size = 0;
  X509_digest(certificate, EVP_sha256(), reinterpret_cast<unsigned char*>(digest.data()), &size);
  digest.resize(size);
  return absl::BytesToHexString(digest);
}

bool IsNumericHost(const std::string& host) {
  const std::unique_ptr<ASN1_OCTET_STRING, Deleter<ASN1_OCTET_STRING_free>> number(
      a2i_IPADDRESS(host.c_str()));
  return number != nullptr;
}

}  // namespace

void SslDeleter::operator()(ssl_st* ssl) const {
  SSL_free(ssl);
}
void SslDeleter::operator()(ssl_ctx_st* context) const {
  SSL_CTX_free(context);
}

absl::StatusOr<SslContextHandle> MakeServerSslContext(const TlsPem& pem) {
  SslContextHandle context = MakeContext(TLS_server_method());
  SSL_CTX_set_alpn_select_cb(context.get(), SelectAlpn, nullptr);
  absl::Status status = UseCertificates(context.get(), pem.certificate);
  if (status.ok()) status = UseKey(context.get(), pem.key);
  if (status.ok() && !pem.ca.text.empty()) status = AskForCertificates(context.get(), pem.ca);
  if (status.ok() && !pem.crl.text.empty()) {
    status = pem.ca.text.empty() ? Failure(pem.crl, "of no use without a CA for clients")
                                 : UseCrls(context.get(), pem.crl);
  }
  if (!status.ok()) return status;
  return context;
}

absl::StatusOr<SslContextHandle> MakeClientSslContext(const TlsPem& pem) {
  SslContextHandle context = MakeContext(TLS_client_method());
  SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
  SSL_CTX_set_alpn_protos(context.get(), kAlpn, sizeof(kAlpn));
  absl::Status status;
  if (pem.ca.text.empty()) {
    SSL_CTX_set_default_verify_paths(context.get());
  } else {
    status = UseRoots(context.get(), pem.ca);
  }
  if (status.ok() && pem.certificate.text.empty() != pem.key.text.empty()) {
    status = pem.key.text.empty() ? Failure(pem.certificate, "of no use without its key")
                                  : Failure(pem.key, "of no use without its certificate");
  }
  if (status.ok() && !pem.certificate.text.empty()) {
    status = UseCertificates(context.get(), pem.certificate);
    if (status.ok()) status = UseKey(context.get(), pem.key);
  }
  if (!status.ok()) return status;
  return context;
}

std::string TlsFailureText(const ssl_st* ssl) {
  const long verification = SSL_get_verify_result(ssl);
  if (verification != X509_V_OK) {
    return absl::StrCat("the peer's certificate is not accepted: ",
                        X509_verify_cert_error_string(verification));
  }
  return ErrorText();
}

std::optional<CertificateIdentity> PeerCertificate(const ssl_st* ssl) {
  const X509* certificate = SSL_get0_peer_certificate(ssl);
  if (certificate == nullptr) return std::nullopt;
  CertificateIdentity identity;
  identity.subject = Subject(certificate);
  AddNames(certificate, identity);
  identity.fingerprint = Fingerprint(certificate);
  return identity;
}

absl::StatusOr<std::unique_ptr<TlsServerContext>> TlsServerContext::Create(
    const TlsServerOptions& options) {
  ConfigFileWatch watch(
      {options.certificate_file, options.key_file, options.client_ca_file, options.crl_file},
      options.reload_interval);
  absl::StatusOr<SslContextHandle> context = LoadServerContext(options);
  if (!context.ok()) return context.status();
  return std::unique_ptr<TlsServerContext>(
      new TlsServerContext(options, std::move(watch), *std::move(context)));
}

TlsServerContext::TlsServerContext(const TlsServerOptions& options, ConfigFileWatch watch,
                                   SslContextHandle context)
    : options_(options), watch_(std::move(watch)), context_(std::move(context)) {}

SslHandle TlsServerContext::NewConnection() {
  if (watch_.Changed()) Reload();
  return SslHandle(SSL_new(context_.get()));
}

void TlsServerContext::Reload() {
  absl::StatusOr<SslContextHandle> context = LoadServerContext(options_);
  if (context.ok()) {
    context_ = *std::move(context);
    if (!logging::ShouldCreateLogMessage(logging::LOGGING_INFO)) return;
    logging::LogMessage(__FILE__, __LINE__, logging::LOGGING_INFO).stream()
        << "The TLS files have changed and are in use"
        << LogField("certificate", options_.certificate_file);
  } else if (logging::ShouldCreateLogMessage(logging::LOGGING_ERROR)) {
    logging::LogMessage(__FILE__, __LINE__, logging::LOGGING_ERROR).stream()
        << "The TLS files have changed and cannot be used; the former ones stay in use"
        << LogField("reason", std::string(context.status().message()));
  }
}

absl::StatusOr<std::unique_ptr<TlsClientContext>> TlsClientContext::Create(
    const TlsClientOptions& options) {
  const absl::StatusOr<TlsPem> pem =
      ReadFiles(options.certificate_file, options.key_file, options.ca_file, "");
  if (!pem.ok()) return pem.status();
  absl::StatusOr<SslContextHandle> context = MakeClientSslContext(*pem);
  if (!context.ok()) return context.status();
  return std::unique_ptr<TlsClientContext>(new TlsClientContext(options, *std::move(context)));
}

TlsClientContext::TlsClientContext(const TlsClientOptions& options, SslContextHandle context)
    : options_(options), context_(std::move(context)) {}

SslHandle TlsClientContext::NewConnection(const Address& address) const {
  SslHandle ssl(SSL_new(context_.get()));
  const std::string& name = options_.server_name.empty() ? address.host : options_.server_name;
  if (IsNumericHost(name)) {
    X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl.get()), name.c_str());
  } else {
    SSL_set_hostflags(ssl.get(),
                      X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS | X509_CHECK_FLAG_NEVER_CHECK_SUBJECT);
    SSL_set1_host(ssl.get(), name.c_str());
    // What SSL_set_tlsext_host_name() is, without its cast.
    SSL_ctrl(ssl.get(), SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
             const_cast<char*>(name.c_str()));
  }
  return ssl;
}

}  // namespace varnic::net
