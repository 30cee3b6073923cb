#ifndef CORE_NET_INHERITED_SOCKET_H_
#define CORE_NET_INHERITED_SOCKET_H_

#include "absl/status/statusor.h"
#include "core/net/address.h"

namespace varnic::net {

// Where a socket listens that this process was started with, and that it did not bind itself.
// FAILED_PRECONDITION names `fd`, and says why no connections can be accepted on it: it has to be a
// stream socket that listens, either on TCP or in the Unix domain with a file.
absl::StatusOr<Address> InheritedAddress(int fd);

}  // namespace varnic::net

#endif  // CORE_NET_INHERITED_SOCKET_H_
