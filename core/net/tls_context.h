#ifndef CORE_NET_TLS_CONTEXT_H_
#define CORE_NET_TLS_CONTEXT_H_

#include <cstddef>
#include <memory>
#include <string>

#include "absl/status/statusor.h"
#include "absl/time/time.h"
#include "core/net/address.h"
#include "core/net/config_file.h"
#include "core/net/peer.h"

// OpenSSL's, so that its headers stay private to this room.
struct ssl_ctx_st;
struct ssl_st;

namespace varnic::net {

struct SslDeleter {
  void operator()(ssl_st* ssl) const;
  void operator()(ssl_ctx_st* context) const;
};
using SslHandle = std::unique_ptr<ssl_st, SslDeleter>;
using SslContextHandle = std::unique_ptr<ssl_ctx_st, SslDeleter>;

// What a server proves itself with, and whom it asks for proof. All files are PEM.
struct TlsServerOptions {
  std::string certificate_file;  // The server's own certificate, then those between it and a root.
  std::string key_file;          // Its private key, without a passphrase.
  // With one, every client needs a certificate that leads to one of these roots.
  std::string client_ca_file;
  // With one, every certificate between a client's own and its root has to be covered by one of
  // these lists, and revoked by none. A list past its date refuses everybody. Needs client_ca_file.
  std::string crl_file;

  // From the accepted connection to the end of the handshake.
  absl::Duration handshake_timeout = absl::Seconds(10);
  // More handshakes at a time end the oldest of them.
  std::size_t max_handshakes = 256;
  // How often the files are looked at, at most, to see whether they have changed.
  absl::Duration reload_interval = absl::Seconds(1);
};

// Whom a client trusts, and what it proves itself with. All files are PEM, and are read once.
struct TlsClientOptions {
  std::string ca_file;           // Roots that a server may have; the system's if empty.
  std::string certificate_file;  // For servers that want one; both or neither.
  std::string key_file;
  std::string server_name;  // The name to expect in the server's certificate; the host's if empty.
};

// The contents of the files above, so that what parses them needs no files.
struct TlsPem {
  struct Part {
    std::string name;  // What errors call it.
    std::string text;
  };

  Part certificate = {"certificate", ""};
  Part key = {"key", ""};
  Part ca = {"CA", ""};
  Part crl = {"CRL", ""};
};

// OpenSSL contexts of this program's rules: TLS 1.2 and 1.3, ALPN "h2", no resumption, so that
// every connection is verified anew. An error says which of the four is wrong, and how.
absl::StatusOr<SslContextHandle> MakeServerSslContext(const TlsPem& pem);
absl::StatusOr<SslContextHandle> MakeClientSslContext(const TlsPem& pem);

// Why the last operation on `ssl`, on this thread, has failed.
std::string TlsFailureText(const ssl_st* ssl);

// The certificate of the other end; absent if it showed none. After a handshake that verified it.
std::optional<CertificateIdentity> PeerCertificate(const ssl_st* ssl);

// A server's credentials, read again when their files change: connections that are made afterwards
// use the new ones. Files that cannot be used change nothing and are logged once. RPC thread only.
class TlsServerContext {
 public:
  // An error names the file that is wrong.
  static absl::StatusOr<std::unique_ptr<TlsServerContext>> Create(const TlsServerOptions& options);

  // For one connection.
  SslHandle NewConnection();

 private:
  TlsServerContext(const TlsServerOptions& options, ConfigFileWatch watch,
                   SslContextHandle context);

  void Reload();

  const TlsServerOptions options_;
  ConfigFileWatch watch_;
  SslContextHandle context_;
};

// A client's credentials. RPC thread only.
class TlsClientContext {
 public:
  // An error names the file that is wrong.
  static absl::StatusOr<std::unique_ptr<TlsClientContext>> Create(const TlsClientOptions& options);

  // For one connection, to a server that has to prove that it is the one at `address`.
  SslHandle NewConnection(const Address& address) const;

 private:
  TlsClientContext(const TlsClientOptions& options, SslContextHandle context);

  const TlsClientOptions options_;
  const SslContextHandle context_;
};

}  // namespace varnic::net

#endif  // CORE_NET_TLS_CONTEXT_H_
