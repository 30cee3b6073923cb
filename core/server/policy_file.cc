#include "core/server/policy_file.h"

#include <optional>
#include <utility>

#include "absl/strings/str_cat.h"
#include "base/logging.h"
#include "core/net/log_field.h"

namespace varnic {
namespace {

absl::StatusOr<AccessPolicy> ReadPolicy(const std::string& path) {
  const absl::StatusOr<std::string> text = net::ReadConfigFile(path);
  if (!text.ok()) return text.status();
  absl::StatusOr<AccessPolicy> policy = AccessPolicy::Parse(*text);
  if (policy.ok()) return policy;
  return absl::InvalidArgumentError(absl::StrCat(path, ": ", policy.status().message()));
}

}  // namespace

absl::StatusOr<std::unique_ptr<PolicyFile>> PolicyFile::Load(const std::string& path,
                                                             absl::Duration interval) {
  net::ConfigFileWatch watch({path}, interval);
  absl::StatusOr<AccessPolicy> policy = ReadPolicy(path);
  if (!policy.ok()) return policy.status();
  return std::unique_ptr<PolicyFile>(new PolicyFile(path, std::move(watch), *std::move(policy)));
}

PolicyFile::PolicyFile(const std::string& path, net::ConfigFileWatch watch, AccessPolicy policy)
    : path_(path), watch_(std::move(watch)), policy_(std::move(policy)) {}

absl::StatusOr<std::string> PolicyFile::Authorize(const net::Peer& peer, std::string_view method) {
  if (watch_.Changed()) Reload();
  const std::string* role = policy_.RoleFor(peer, method);
  if (role != nullptr) return *role;
  ++denied_;
  LogDenial(peer, method);
  return absl::PermissionDeniedError(
      absl::StrCat("This client may not call ", std::string(method)));
}

void PolicyFile::Reload() {
  absl::StatusOr<AccessPolicy> policy = ReadPolicy(path_);
  if (policy.ok()) {
    policy_ = *std::move(policy);
    if (!logging::ShouldCreateLogMessage(logging::LOGGING_INFO)) return;
    logging::LogMessage(__FILE__, __LINE__, logging::LOGGING_INFO).stream()
        << "The policy has changed and is in force" << net::LogField("policy", path_);
  } else if (logging::ShouldCreateLogMessage(logging::LOGGING_ERROR)) {
    logging::LogMessage(__FILE__, __LINE__, logging::LOGGING_ERROR).stream()
        << "The policy has changed and cannot be used; the former one stays in force"
        << net::LogField("reason", std::string(policy.status().message()));
  }
}

void PolicyFile::LogDenial(const net::Peer& peer, std::string_view method) {
  const std::optional<std::uint64_t> left_out = denials_.Admit();
  if (!left_out || !logging::ShouldCreateLogMessage(logging::LOGGING_WARNING)) return;
  logging::LogMessage(__FILE__, __LINE__, logging::LOGGING_WARNING).stream()
      << "Denied a call" << net::LogField("method", method) << " " << peer.ToString()
      << net::LogLimiter::More(*left_out);
}

}  // namespace varnic
