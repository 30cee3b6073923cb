#ifndef TOOLS_CHALLENGER_H_
#define TOOLS_CHALLENGER_H_

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "absl/container/flat_hash_set.h"
#include "absl/status/statusor.h"
#include "rpc/identifiers.pb.h"
#include "rpc/profile/profile.pb.h"

namespace varnic::tools {

// Who may be given credentials: a host, at one port or at any.
struct Challenger {
  std::string host;  // In lower case; an IPv6 address without brackets.
  std::optional<std::uint32_t> port;

  // "HOST", "HOST:PORT" or "[ADDRESS]:PORT". INVALID_ARGUMENT quotes `text`.
  static absl::StatusOr<Challenger> Parse(const std::string& text);

  bool Matches(const rpc::Authenticate::Request& request) const;
};

// Remembers who was sent the password, so that one that was refused is not sent again and again.
// Who is a profile, a host and a port, and whether that is a proxy: not what they may change from
// one challenge to the next, as the realm. Another password makes it forget the one before.
//
// Knows a thousand of them; everybody else then gets the password at first attempts only. Keeps no
// password, but its digest with a random salt.
class SentPasswords {
 public:
  SentPasswords();

  void Remember(const ProfileId& profile, const rpc::Authenticate::Request& request,
                const std::string& password);
  // Whether the host says that credentials were refused, and these are, or may be, what was sent.
  bool WasRefused(const ProfileId& profile, const rpc::Authenticate::Request& request,
                  const std::string& password) const;

 private:
  using Digest = std::array<unsigned char, 32>;

  Digest DigestOf(const std::string& password) const;

  Digest salt_ = {};
  std::optional<Digest> password_;  // None before the first one.
  absl::flat_hash_set<std::string> sent_to_;
};

}  // namespace varnic::tools

#endif  // TOOLS_CHALLENGER_H_
