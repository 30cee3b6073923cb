#ifndef CORE_NET_ADDRESS_H_
#define CORE_NET_ADDRESS_H_

#include <cstdint>
#include <string>
#include <string_view>

#include "absl/status/statusor.h"

namespace varnic::net {

// Where a server listens and a client connects, as users write it. Parsing looks nothing up:
// neither the file system nor names.
//
//   unix:run/host.sock      a Unix-domain socket, at a relative or absolute path
//   unix:///run/host.sock   the same, absolute
//   127.0.0.1:50051         TCP: a name or IPv4 address, and a port; 0 lets the system pick one
//   [::1]:50051             TCP: an IPv6 address, and a port
struct Address {
  enum class Kind { kUnix, kTcp };

  // INVALID_ARGUMENT with a text that quotes `text` and says what is wrong with it.
  static absl::StatusOr<Address> Parse(std::string_view text);

  // A text that Parse() turns into an equal address.
  std::string ToString() const;

  // True for TCP at 127.0.0.0/8, ::1, their IPv4-mapped form, and the name "localhost". Any other
  // name is not looked up and counts as remote. False for a Unix-domain socket.
  bool IsLoopback() const;

  Kind kind = Kind::kTcp;
  std::string path;   // kUnix only.
  std::string host;   // kTcp only; an IPv6 address is without its brackets.
  uint16_t port = 0;  // kTcp only.
};

bool operator==(const Address& a, const Address& b);
inline bool operator!=(const Address& a, const Address& b) {
  return !(a == b);
}

}  // namespace varnic::net

#endif  // CORE_NET_ADDRESS_H_
