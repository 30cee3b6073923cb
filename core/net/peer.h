#ifndef CORE_NET_PEER_H_
#define CORE_NET_PEER_H_

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace varnic::net {

// What a verified certificate says about whoever holds its key.
struct CertificateIdentity {
  // As RFC 2253 writes it: "CN=reader,O=Example".
  std::string subject;
  // The subject's alternative names, by kind. One that is not plain printable ASCII is left out.
  std::vector<std::string> uris;
  std::vector<std::string> dns_names;
  std::vector<std::string> emails;
  // SHA-256 of the certificate, in lower-case hexadecimal digits.
  std::string fingerprint;
};

// Who is at the other end of a connection, as far as the system or a certificate vouches for it. A
// value: what it says was true when the connection was made.
struct Peer {
  // kTcp is nobody in particular: plain TCP tells nothing about the process at its other end.
  enum class Kind { kUnix, kTcp, kTls };

  // The fields of a log record: `uid=1000 gid=1000 pid=4711`, or `peer=192.0.2.7:50112` and, with a
  // certificate, ` subject="CN=reader" sha256=…`.
  std::string ToString() const;

  Kind kind = Kind::kTcp;
  // "192.0.2.7:50112" or "[::1]:50112"; "unix" for a Unix-domain socket.
  std::string address;

  // kUnix only: the process that connected, as the kernel saw it then. The process may have ended
  // since, and its number may be another's.
  uid_t uid = static_cast<uid_t>(-1);
  gid_t gid = static_cast<gid_t>(-1);
  pid_t pid = 0;
  std::vector<gid_t> supplementary_groups;

  // kTls only: absent from a client that was not asked for a certificate.
  std::optional<CertificateIdentity> certificate;
};

}  // namespace varnic::net

#endif  // CORE_NET_PEER_H_
