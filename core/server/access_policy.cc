#include "core/server/access_policy.h"

#include <algorithm>
#include <limits>
#include <set>
#include <utility>

#include "absl/strings/ascii.h"
#include "absl/strings/escaping.h"
#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "nlohmann/json.hpp"

namespace varnic {
namespace {

using Json = nlohmann::json;

constexpr int kMaxDepth = 4;

absl::Status Failure(const std::string& what, const std::string& why) {
  return absl::InvalidArgumentError(absl::StrCat(what, ": ", why));
}

std::string Quoted(std::string_view text) {
  return absl::StrCat("\"", absl::Utf8SafeCHexEscape(std::string(text)), "\"");
}

bool EndsWith(std::string_view text, std::string_view end) {
  return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

bool IsNamePart(char c) {
  return absl::ascii_isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_' || c == '.' ||
         c == '~';
}

// "/package.Service/Method" has two parts that are neither empty nor hold a slash.
bool IsMethodPath(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return path.size() > 3 && path[0] == '/' && slash > 1 && slash + 1 < path.size() &&
         path.find('/', 1) == slash;
}

// Parses JSON, and refuses what a reader could take for something else than this program does: keys
// that stand twice in an object, and nesting that no policy needs.
absl::StatusOr<Json> ParseJson(const std::string& text) {
  std::vector<std::set<std::string>> keys;
  std::string problem;
  const auto check = [&](int depth, Json::parse_event_t event, Json& parsed) {
    if (depth > kMaxDepth) problem = "nested too deeply";
    if (event == Json::parse_event_t::object_start) keys.emplace_back();
    if (event == Json::parse_event_t::object_end) keys.pop_back();
    if (event == Json::parse_event_t::key &&
        !keys.back().insert(parsed.get_ref<const std::string&>()).second) {
      problem = absl::StrCat("the key ", Quoted(parsed.get_ref<const std::string&>()),
                             " stands twice in an object");
    }
    return problem.empty();
  };
  Json json = Json::parse(text, check, /*allow_exceptions=*/false);
  if (!problem.empty()) return Failure("policy", problem);
  if (json.is_discarded()) return Failure("policy", "not valid JSON");
  return json;
}

}  // namespace

absl::StatusOr<SanPattern> SanPattern::Parse(std::string_view text) {
  const auto failure = [text](const std::string& why) { return Failure(Quoted(text), why); };
  const std::size_t colon = text.find(':');
  const std::string_view scheme = text.substr(0, colon);
  std::string_view name = colon == std::string_view::npos ? "" : text.substr(colon + 1);
  Kind kind = Kind::kUri;
  std::string_view wildcard = "/*";
  if (scheme == "DNS") {
    kind = Kind::kDns;
    wildcard = "*.";
  } else if (scheme == "email") {
    kind = Kind::kEmail;
    wildcard = "*@";
  } else if (scheme != "URI") {
    return failure("has to begin with URI:, DNS: or email:");
  }
  bool has_wildcard = false;
  if (kind == Kind::kUri && EndsWith(name, wildcard)) {
    has_wildcard = true;
    name.remove_suffix(1);
    // Otherwise a wildcard would stand for the authority.
    const std::size_t authority = name.find("://");
    if (authority == std::string_view::npos || name.find('/', authority + 3) == authority + 3 ||
        name.find('/', authority + 3) == std::string_view::npos) {
      return failure("a wildcard in a URI stands for a segment of its path");
    }
  } else if (kind != Kind::kUri && name.substr(0, 2) == wildcard) {
    has_wildcard = true;
    name.remove_prefix(1);
    if (kind == Kind::kDns && name.find('.', 1) == std::string_view::npos) {
      return failure("a wildcard stands before two labels at least, as in DNS:*.example.org");
    }
  }
  if (name.find('*') != std::string_view::npos) {
    return failure("a wildcard stands for one whole part: the last of a URI, the first of others");
  }
  if (name.size() < 2) return failure("the name is missing");
  std::string fixed(name);
  if (kind == Kind::kDns) absl::AsciiStrToLower(&fixed);
  return SanPattern(kind, std::move(fixed), has_wildcard);
}

bool SanPattern::Matches(const net::CertificateIdentity& certificate) const {
  const std::vector<std::string>& names = kind_ == Kind::kUri   ? certificate.uris
                                          : kind_ == Kind::kDns ? certificate.dns_names
                                                                : certificate.emails;
  return std::any_of(names.begin(), names.end(), [this](const std::string& name) {
    return MatchesName(kind_ == Kind::kDns ? absl::AsciiStrToLower(name) : name);
  });
}

bool SanPattern::MatchesName(std::string_view name) const {
  if (!wildcard_) return name == fixed_;
  if (name.size() <= fixed_.size()) return false;
  const std::size_t part_size = name.size() - fixed_.size();
  const bool at_end = kind_ == Kind::kUri;
  const std::string_view part = at_end ? name.substr(fixed_.size()) : name.substr(0, part_size);
  const std::string_view rest = at_end ? name.substr(0, fixed_.size()) : name.substr(part_size);
  if (rest != fixed_ || !std::all_of(part.begin(), part.end(), IsNamePart)) return false;
  if (kind_ == Kind::kDns) return part.find('.') == std::string_view::npos;
  return part != "." && part != "..";
}

bool AccessPolicy::Role::Fits(const net::Peer& peer) const {
  if (anyone) return true;
  const auto has_group = [&](gid_t group) {
    return std::find(groups.begin(), groups.end(), group) != groups.end();
  };
  if (peer.kind == net::Peer::Kind::kUnix) {
    return std::find(users.begin(), users.end(), peer.uid) != users.end() || has_group(peer.gid) ||
           std::any_of(peer.supplementary_groups.begin(), peer.supplementary_groups.end(),
                       has_group);
  }
  return peer.certificate.has_value() &&
         std::any_of(names.begin(), names.end(),
                     [&](const SanPattern& pattern) { return pattern.Matches(*peer.certificate); });
}

// Reads the JSON into a policy; stops at the first thing that is wrong.
class AccessPolicy::Reader {
 public:
  absl::StatusOr<AccessPolicy> Read(const Json& json) {
    absl::Status status = CheckKeys("policy", json, {"roles", "methods"});
    for (const char* key : {"roles", "methods"}) {
      if (status.ok() && (!json.contains(key) || !json[key].is_object())) {
        status = Failure("policy", absl::StrCat("needs an object ", Quoted(key)));
      }
    }
    if (!status.ok()) return status;
    for (const auto& [name, role] : json["roles"].items()) {
      if (status = ReadRole(name, role); !status.ok()) return status;
    }
    for (const auto& [path, roles] : json["methods"].items()) {
      if (status = ReadRule(path, roles); !status.ok()) return status;
    }
    return std::move(policy_);
  }

 private:
  static absl::Status CheckKeys(const std::string& where, const Json& json,
                                const std::set<std::string>& known) {
    if (!json.is_object()) return Failure(where, "has to be an object");
    for (const auto& [key, value] : json.items()) {
      if (known.count(key) == 0) return Failure(where, absl::StrCat("unknown key ", Quoted(key)));
    }
    return absl::OkStatus();
  }

  // Calls `use(element)` with each element of json[key], which may be missing.
  template <class Use>
  static absl::Status ForEach(const std::string& where, const Json& json, const char* key,
                              Use use) {
    if (!json.contains(key)) return absl::OkStatus();
    const Json& list = json[key];
    if (!list.is_array()) return Failure(where, absl::StrCat(Quoted(key), " has to be a list"));
    for (const Json& element : list) {
      if (absl::Status status = use(element); !status.ok()) return status;
    }
    return absl::OkStatus();
  }

  template <class Id>
  static absl::Status ReadIds(const std::string& where, const Json& json, const char* key,
                              std::vector<Id>& ids) {
    return ForEach(where, json, key, [&](const Json& id) {
      // The largest number means "no user".
      if (!id.is_number_unsigned() || id.get<uint64_t>() >= std::numeric_limits<Id>::max()) {
        return Failure(where, absl::StrCat(Quoted(key), " has to be a list of numbers"));
      }
      ids.push_back(id.get<Id>());
      return absl::OkStatus();
    });
  }

  absl::Status ReadRole(const std::string& name, const Json& json) {
    const std::string where = absl::StrCat("role ", Quoted(name));
    Role& role = policy_.roles_[name];
    absl::Status status = CheckKeys(where, json, {"uid", "gid", "san", "anyone"});
    if (status.ok()) status = ReadIds(where, json, "uid", role.users);
    if (status.ok()) status = ReadIds(where, json, "gid", role.groups);
    if (status.ok()) status = ReadNames(where, json, role.names);
    if (status.ok() && json.contains("anyone")) {
      if (!json["anyone"].is_boolean()) return Failure(where, "\"anyone\" has to be true or false");
      role.anyone = json["anyone"].get<bool>();
    }
    return status;
  }

  static absl::Status ReadNames(const std::string& where, const Json& json,
                                std::vector<SanPattern>& names) {
    return ForEach(where, json, "san", [&](const Json& text) {
      if (!text.is_string()) return Failure(where, "\"san\" has to be a list of texts");
      absl::StatusOr<SanPattern> pattern = SanPattern::Parse(text.get_ref<const std::string&>());
      if (!pattern.ok()) return Failure(where, std::string(pattern.status().message()));
      names.push_back(*std::move(pattern));
      return absl::OkStatus();
    });
  }

  absl::Status ReadRule(const std::string& path, const Json& json) {
    const std::string where = absl::StrCat("method ", Quoted(path));
    const bool is_prefix = EndsWith(path, "/*");
    if (path != "*" &&
        (!IsMethodPath(path) || std::count(path.begin(), path.end(), '*') != (is_prefix ? 1 : 0))) {
      return Failure(where, "has to be \"/Service/Method\", \"/Service/*\" or \"*\"");
    }
    if (!json.is_array()) return Failure(where, "has to be a list of roles");
    std::vector<std::string>& roles = policy_.rules_[path];
    for (const Json& role : json) {
      if (!role.is_string()) return Failure(where, "has to be a list of roles");
      const auto& name = role.get_ref<const std::string&>();
      if (policy_.roles_.count(name) == 0) {
        return Failure(where, absl::StrCat("there is no role ", Quoted(name)));
      }
      roles.push_back(name);
    }
    return absl::OkStatus();
  }

  AccessPolicy policy_;
};

absl::StatusOr<AccessPolicy> AccessPolicy::Parse(const std::string& json) {
  const absl::StatusOr<Json> parsed = ParseJson(json);
  if (!parsed.ok()) return parsed.status();
  return Reader().Read(*parsed);
}

const std::string* AccessPolicy::RoleFor(const net::Peer& peer, std::string_view path) const {
  const std::vector<std::string>* rule = RuleFor(path);
  if (rule == nullptr) return nullptr;
  const auto role = std::find_if(rule->begin(), rule->end(), [&](const std::string& name) {
    return roles_.at(name).Fits(peer);
  });
  return role == rule->end() ? nullptr : &*role;
}

const std::vector<std::string>* AccessPolicy::RuleFor(std::string_view path) const {
  const std::string service = std::string(path.substr(0, path.rfind('/') + 1)) + "*";
  for (const std::string& key : {std::string(path), service, std::string("*")}) {
    if (const auto rule = rules_.find(key); rule != rules_.end()) return &rule->second;
  }
  return nullptr;
}

}  // namespace varnic
