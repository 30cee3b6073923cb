#include "tools/challenger.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>

#include "absl/status/status.h"
#include "absl/strings/ascii.h"
#include "absl/strings/match.h"
#include "absl/strings/numbers.h"
#include "absl/strings/str_cat.h"
#include "core/common/rpc/fatal.h"
#include "tools/safe_text.h"

namespace varnic::tools {
namespace {

constexpr std::size_t kMaxChallengers = 1000;

std::string WithoutBrackets(const std::string& host) {
  const bool in_brackets = host.size() > 2 && host.front() == '[' && host.back() == ']';
  return in_brackets ? host.substr(1, host.size() - 2) : host;
}

std::string KeyOf(const ProfileId& profile, const rpc::Authenticate::Request& request) {
  return absl::StrCat(profile.value().size(), ":", profile.value(),
                      request.is_proxy() ? "proxy " : "server ", request.challenger_port(), " ",
                      absl::AsciiStrToLower(WithoutBrackets(request.challenger_host())));
}

}  // namespace

absl::StatusOr<Challenger> Challenger::Parse(const std::string& text) {
  Challenger challenger;
  const std::size_t colon = text.rfind(':');
  // Without brackets, more than one colon is an IPv6 address.
  const bool has_port =
      colon != std::string::npos && (text.find(':') == colon || text[colon - 1] == ']');
  const std::string host = text.substr(0, has_port ? colon : std::string::npos);
  challenger.host = absl::AsciiStrToLower(WithoutBrackets(host));
  std::uint32_t port = 0;
  if (has_port && absl::SimpleAtoi(text.substr(colon + 1), &port)) challenger.port = port;
  if (challenger.host.empty() || (has_port && (port == 0 || port > 65535))) {
    return absl::InvalidArgumentError(
        absl::StrCat("--challenger ", SafeWord(text), ": it has to be HOST or HOST:PORT"));
  }
  return challenger;
}

bool Challenger::Matches(const rpc::Authenticate::Request& request) const {
  return absl::EqualsIgnoreCase(host, WithoutBrackets(request.challenger_host())) &&
         (!port.has_value() || *port == request.challenger_port());
}

SentPasswords::SentPasswords() {
  VARNIC_CHECK(RAND_bytes(salt_.data(), static_cast<int>(salt_.size())) == 1);
}

void SentPasswords::Remember(const ProfileId& profile, const rpc::Authenticate::Request& request,
                             const std::string& password) {
  const Digest digest = DigestOf(password);
  if (password_ != digest) sent_to_.clear();
  password_ = digest;
  if (sent_to_.size() < kMaxChallengers) sent_to_.insert(KeyOf(profile, request));
}

bool SentPasswords::WasRefused(const ProfileId& profile, const rpc::Authenticate::Request& request,
                               const std::string& password) const {
  if (request.first_attempt() || password_ != DigestOf(password)) return false;
  // Nobody knows any more whether others had it.
  return sent_to_.size() >= kMaxChallengers || sent_to_.contains(KeyOf(profile, request));
}

SentPasswords::Digest SentPasswords::DigestOf(const std::string& password) const {
  const std::string salted(salt_.begin(), salt_.end());
  const std::string text = absl::StrCat(salted, password);
  Digest digest = {};
  VARNIC_CHECK(
      EVP_Digest(text.data(), text.size(), digest.data(), nullptr, EVP_sha256(), nullptr) == 1);
  return digest;
}

}  // namespace varnic::tools
