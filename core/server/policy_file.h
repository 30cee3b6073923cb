#ifndef CORE_SERVER_POLICY_FILE_H_
#define CORE_SERVER_POLICY_FILE_H_

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "absl/status/statusor.h"
#include "absl/time/time.h"
#include "core/net/config_file.h"
#include "core/net/log_limiter.h"
#include "core/net/peer.h"
#include "core/server/access_policy.h"

namespace varnic {

// An access policy in a file, which is read again when it changes. A file that cannot be used
// leaves the former policy in force and is logged once. RPC thread only.
class PolicyFile {
 public:
  // An error names the file, and what is wrong in it. `interval` is how often the file is looked
  // at, at most, to see whether it has changed.
  static absl::StatusOr<std::unique_ptr<PolicyFile>> Load(
      const std::string& path, absl::Duration interval = absl::Seconds(1));

  // The role in which `peer` may call `method`, "/rpc.Profile/Path"; PERMISSION_DENIED otherwise,
  // counted and logged.
  absl::StatusOr<std::string> Authorize(const net::Peer& peer, std::string_view method);

  std::uint64_t denied() const { return denied_; }

 private:
  PolicyFile(const std::string& path, net::ConfigFileWatch watch, AccessPolicy policy);

  void Reload();
  void LogDenial(const net::Peer& peer, std::string_view method);

  const std::string path_;
  net::ConfigFileWatch watch_;
  AccessPolicy policy_;
  std::uint64_t denied_ = 0;
  net::LogLimiter denials_;
};

}  // namespace varnic

#endif  // CORE_SERVER_POLICY_FILE_H_
