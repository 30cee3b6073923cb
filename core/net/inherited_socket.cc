#include "core/net/inherited_socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>

#include "absl/strings/str_cat.h"

namespace varnic::net {
namespace {

absl::Status Unfit(int fd, const std::string& why) {
  return absl::FailedPreconditionError(absl::StrCat("file descriptor ", fd, " ", why));
}

absl::StatusOr<int> ReadOption(int fd, int option) {
  int value = 0;
  socklen_t size = sizeof(value);
  if (getsockopt(fd, SOL_SOCKET, option, &value, &size) == 0) return value;
  if (errno == EBADF) return Unfit(fd, "is not open");
  if (errno == ENOTSOCK) return Unfit(fd, "is not a socket");
  return Unfit(fd, absl::StrCat("cannot be looked at: ", std::strerror(errno)));
}

absl::Status CheckListens(int fd) {
  const absl::StatusOr<int> type = ReadOption(fd, SO_TYPE);
  if (!type.ok()) return type.status();
  if (*type != SOCK_STREAM) return Unfit(fd, "is not a stream socket");
  const absl::StatusOr<int> listens = ReadOption(fd, SO_ACCEPTCONN);
  if (!listens.ok()) return listens.status();
  return *listens != 0 ? absl::OkStatus() : Unfit(fd, "is a socket that does not listen");
}

absl::StatusOr<Address> UnixAddress(int fd, const sockaddr_un& address, socklen_t size) {
  constexpr std::size_t kPathOffset = offsetof(sockaddr_un, sun_path);
  // A path that fills the field has no zero behind it.
  const std::size_t room = std::min<std::size_t>(size, sizeof(address));
  const std::size_t length = room > kPathOffset ? strnlen(address.sun_path, room - kPathOffset) : 0;
  // A name in the abstract namespace begins with a zero.
  if (length == 0) return Unfit(fd, "is a Unix-domain socket without a file");
  Address result;
  result.kind = Address::Kind::kUnix;
  result.path.assign(address.sun_path, length);
  return result;
}

// `number` is the address without its port, in the kernel's form.
Address TcpAddress(int family, const void* number, in_port_t port) {
  char text[INET6_ADDRSTRLEN] = "";
  inet_ntop(family, number, text, sizeof(text));
  Address result;
  result.host = text;
  result.port = ntohs(port);
  return result;
}

}  // namespace

absl::StatusOr<Address> InheritedAddress(int fd) {
  if (absl::Status status = CheckListens(fd); !status.ok()) return status;
  union {
    sockaddr any;
    sockaddr_un local;
    sockaddr_in ipv4;
    sockaddr_in6 ipv6;
  } address = {};
  socklen_t size = sizeof(address);
  if (getsockname(fd, &address.any, &size) != 0) {
    return Unfit(fd, absl::StrCat("has no address: ", std::strerror(errno)));
  }
  switch (address.any.sa_family) {
    case AF_UNIX:
      return UnixAddress(fd, address.local, size);
    case AF_INET:
      return TcpAddress(AF_INET, &address.ipv4.sin_addr, address.ipv4.sin_port);
    case AF_INET6:
      return TcpAddress(AF_INET6, &address.ipv6.sin6_addr, address.ipv6.sin6_port);
    default:
      return Unfit(fd, "is a socket of neither TCP nor the Unix domain");
  }
}

}  // namespace varnic::net
