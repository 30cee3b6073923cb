#ifndef CORE_SERVER_ACCESS_POLICY_H_
#define CORE_SERVER_ACCESS_POLICY_H_

#include <sys/types.h>

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "absl/status/statusor.h"
#include "core/net/peer.h"

namespace varnic {

// One alternative name of a certificate, or a family of them. What stands for "*" is one part of a
// name, is never empty, and holds nothing but letters, digits and "-", "_", ".", "~":
//
//   URI:spiffe://example.org/reader      that URI
//   URI:spiffe://example.org/hosts/*     those with one more segment in its place
//   DNS:reader.example.org               that name, in any case of its letters
//   DNS:*.readers.example.org            those with one more label in its place
//   email:reader@example.org             that address
//   email:*@example.org                  those of that domain
class SanPattern {
 public:
  // INVALID_ARGUMENT quotes `text` and says what is wrong with it.
  static absl::StatusOr<SanPattern> Parse(std::string_view text);

  bool Matches(const net::CertificateIdentity& certificate) const;

 private:
  enum class Kind { kUri, kDns, kEmail };

  SanPattern(Kind kind, std::string fixed, bool wildcard)
      : kind_(kind), fixed_(std::move(fixed)), wildcard_(wildcard) {}

  bool MatchesName(std::string_view name) const;

  Kind kind_;
  std::string fixed_;  // What stands beside the wildcard: before it in a URI, and else behind it.
  bool wildcard_;
};

// Who may call what: roles, each with whom it is for, and methods, each with its roles. In JSON:
//
//   {
//     "roles": {
//       "operator": {"uid": [1000], "gid": [27]},
//       "reader": {"san": ["URI:spiffe://example.org/reader", "DNS:*.readers.example.org"]},
//       "guest": {"anyone": true}
//     },
//     "methods": {
//       "/rpc.Profile/Path": ["operator", "reader", "guest"],
//       "/rpc.Profile/*": ["operator", "reader"],
//       "*": ["operator"]
//     }
//   }
//
// A peer has a role if any of its entries fits. Of the rules that name a method, only the nearest
// counts: the method's own, else its service's, else "*". What no rule names, nobody may call.
class AccessPolicy {
 public:
  // INVALID_ARGUMENT says what is wrong, and where. Whatever is not understood is an error.
  static absl::StatusOr<AccessPolicy> Parse(const std::string& json);

  // The first of the method's roles, in the order of its rule, that `peer` has; null if it may not
  // call the method at `path`. Valid as long as the policy.
  const std::string* RoleFor(const net::Peer& peer, std::string_view path) const;

 private:
  class Reader;
  struct Role {
    bool Fits(const net::Peer& peer) const;

    std::vector<uid_t> users;
    std::vector<gid_t> groups;
    std::vector<SanPattern> names;
    bool anyone = false;
  };
  using Rules = std::map<std::string, std::vector<std::string>, std::less<>>;

  AccessPolicy() = default;

  const std::vector<std::string>* RuleFor(std::string_view path) const;

  std::map<std::string, Role> roles_;
  Rules rules_;  // The names of roles, by "/Service/Method", "/Service/*" or "*".
};

}  // namespace varnic

#endif  // CORE_SERVER_ACCESS_POLICY_H_
