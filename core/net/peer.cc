#include "core/net/peer.h"

#include "absl/strings/str_cat.h"
#include "core/net/log_field.h"

namespace varnic::net {

std::string Peer::ToString() const {
  if (kind == Kind::kUnix) return absl::StrCat("uid=", uid, " gid=", gid, " pid=", pid);
  const std::string who = absl::StrCat("peer=", address);
  if (!certificate.has_value()) return who;
  return absl::StrCat(who, LogField("subject", certificate->subject),
                      LogField("sha256", certificate->fingerprint));
}

}  // namespace varnic::net
