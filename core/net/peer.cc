#include "core/net/peer.h"

#include "absl/strings/str_cat.h"

namespace varnic::net {

std::string Peer::ToString() const {
  if (kind == Kind::kUnix) return absl::StrCat("uid ", uid, " gid ", gid, " pid ", pid);
  if (!certificate.has_value()) return address;
  return absl::StrCat(address, " with the certificate of \"", certificate->subject, "\", SHA-256 ",
                      certificate->fingerprint);
}

}  // namespace varnic::net
