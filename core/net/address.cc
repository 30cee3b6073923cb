#include "core/net/address.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/un.h>

#include <charconv>
#include <cstddef>
#include <system_error>
#include <tuple>

#include "absl/status/status.h"
#include "absl/strings/ascii.h"
#include "absl/strings/escaping.h"
#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"

namespace varnic::net {
namespace {

constexpr std::string_view kUnixScheme = "unix:";
// The kernel's field, without the NUL that ends a path.
constexpr size_t kMaxPathSize = sizeof(sockaddr_un::sun_path) - 1;
constexpr const char* kForms =
    "expected unix:PATH, unix:///ABSOLUTE/PATH, HOST:PORT or [IPV6]:PORT";

absl::Status BadAddress(std::string_view text, const std::string& problem) {
  return absl::InvalidArgumentError(
      absl::StrCat("address \"", absl::Utf8SafeCHexEscape(std::string(text)), "\": ", problem));
}

bool ParseIpv4(const std::string& host, in_addr& address) {
  return inet_pton(AF_INET, host.c_str(), &address) == 1;
}

bool ParseIpv6(const std::string& host, in6_addr& address) {
  return inet_pton(AF_INET6, host.c_str(), &address) == 1;
}

bool IsHostName(std::string_view host) {
  for (const char c : host) {
    if (!absl::ascii_isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '.' && c != '_') {
      return false;
    }
  }
  return !host.empty();
}

bool LooksLikeIpv4(std::string_view host) {
  return host.find_first_not_of("0123456789.") == std::string_view::npos;
}

// What is wrong with a host that stood outside of brackets; empty if nothing is.
std::string ProblemOfHost(const std::string& host) {
  in_addr ipv4;
  if (host.empty()) return absl::StrCat("the host is missing; ", kForms);
  if (absl::StrContains(host, ':')) {
    return "more than one colon; an IPv6 address is written in brackets, as in [::1]:50051";
  }
  if (!IsHostName(host)) return absl::StrCat("the host is neither a name nor an address; ", kForms);
  if (LooksLikeIpv4(host) && !ParseIpv4(host, ipv4)) return "the host is not a valid IPv4 address";
  return "";
}

std::string ProblemOfBracketedHost(const std::string& host) {
  in6_addr ipv6;
  return ParseIpv6(host, ipv6) ? "" : "what stands in the brackets is not an IPv6 address";
}

bool ParsePort(std::string_view text, uint16_t& port) {
  const char* end = text.data() + text.size();
  const std::from_chars_result result = std::from_chars(text.data(), end, port);
  return result.ec == std::errc() && result.ptr == end;
}

absl::StatusOr<Address> ParseUnix(std::string_view text) {
  std::string_view path = text.substr(kUnixScheme.size());
  if (path.substr(0, 2) == "//") {
    path.remove_prefix(2);
    if (path.substr(0, 1) != "/") {
      return BadAddress(text, "a path after unix:// is absolute, as in unix:///run/host.sock");
    }
  }
  if (path.empty()) return BadAddress(text, "the path is empty; expected unix:PATH");
  if (path.size() > kMaxPathSize) {
    return BadAddress(text,
                      absl::StrCat("the path has ", path.size(),
                                   " bytes; a Unix-domain socket's has at most ", kMaxPathSize));
  }
  Address address;
  address.kind = Address::Kind::kUnix;
  address.path = std::string(path);
  return address;
}

absl::StatusOr<Address> ParseTcp(std::string_view text) {
  const size_t colon = text.rfind(':');
  const size_t bracket = text.rfind(']');
  const bool has_port =
      colon != std::string_view::npos && (bracket == std::string_view::npos || bracket < colon);
  if (!has_port) return BadAddress(text, absl::StrCat("the port is missing; ", kForms));

  std::string_view host = text.substr(0, colon);
  const bool bracketed = host.size() >= 2 && host.front() == '[' && host.back() == ']';
  if (bracketed) host = host.substr(1, host.size() - 2);
  Address address;
  address.host = std::string(host);
  const std::string problem =
      bracketed ? ProblemOfBracketedHost(address.host) : ProblemOfHost(address.host);
  if (!problem.empty()) return BadAddress(text, problem);
  if (!ParsePort(text.substr(colon + 1), address.port)) {
    return BadAddress(text, "the port is not a number from 0 to 65535");
  }
  return address;
}

}  // namespace

absl::StatusOr<Address> Address::Parse(std::string_view text) {
  // The C interfaces below would silently use what stands before it.
  if (text.find('\0') != std::string_view::npos) return BadAddress(text, "contains a NUL byte");
  if (text.substr(0, kUnixScheme.size()) == kUnixScheme) return ParseUnix(text);
  return ParseTcp(text);
}

std::string Address::ToString() const {
  if (kind == Kind::kUnix) {
    // With both slashes even a path that itself starts with two parses back.
    return absl::StrCat(absl::StartsWith(path, "/") ? "unix://" : "unix:", path);
  }
  if (absl::StrContains(host, ':')) return absl::StrCat("[", host, "]:", port);
  return absl::StrCat(host, ":", port);
}

bool Address::IsLoopback() const {
  if (kind != Kind::kTcp) return false;
  in_addr ipv4;
  in6_addr ipv6;
  if (ParseIpv4(host, ipv4)) return ntohl(ipv4.s_addr) >> 24 == IN_LOOPBACKNET;
  if (ParseIpv6(host, ipv6)) {
    return IN6_IS_ADDR_LOOPBACK(&ipv6) ||
           (IN6_IS_ADDR_V4MAPPED(&ipv6) && ipv6.s6_addr[12] == IN_LOOPBACKNET);
  }
  return absl::EqualsIgnoreCase(host, "localhost");
}

bool operator==(const Address& a, const Address& b) {
  return std::tie(a.kind, a.path, a.host, a.port) == std::tie(b.kind, b.path, b.host, b.port);
}

}  // namespace varnic::net
