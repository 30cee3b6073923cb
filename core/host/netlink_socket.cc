#include "core/host/netlink_socket.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstddef>
#include <utility>

#include "absl/strings/str_cat.h"

namespace varnic::host {
namespace {

// Twice what the kernel puts into one datagram of a list.
constexpr std::size_t kBufferBytes = 64 << 10;

}  // namespace

NetlinkSocket::NetlinkSocket(FileDescriptor fd) : fd_(std::move(fd)), buffer_(kBufferBytes, '\0') {}

absl::StatusOr<NetlinkSocket> NetlinkSocket::Open(std::uint32_t groups) {
  FileDescriptor fd(::socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE));
  if (!fd) return absl::ErrnoToStatus(errno, "cannot open a netlink socket");
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = groups;
  if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    return absl::ErrnoToStatus(errno, "cannot bind a netlink socket");
  }
  return NetlinkSocket(std::move(fd));
}

absl::Status NetlinkSocket::Send(std::string_view request) {
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  const ssize_t sent = ::sendto(fd_.get(), request.data(), request.size(), MSG_NOSIGNAL,
                                reinterpret_cast<const sockaddr*>(&kernel), sizeof(kernel));
  if (sent < 0) return absl::ErrnoToStatus(errno, "cannot ask the kernel for its network");
  return absl::OkStatus();
}

absl::StatusOr<std::optional<std::string_view>> NetlinkSocket::Receive() {
  while (true) {
    sockaddr_nl sender{};
    socklen_t sender_size = sizeof(sender);
    const ssize_t size = ::recvfrom(fd_.get(), buffer_.data(), buffer_.size(), MSG_TRUNC,
                                    reinterpret_cast<sockaddr*>(&sender), &sender_size);
    if (size < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN) return std::nullopt;
      if (errno == ENOBUFS) return absl::ResourceExhaustedError("announcements were lost");
      return absl::ErrnoToStatus(errno, "cannot read what the kernel says of its network");
    }
    if (sender.nl_pid != 0) continue;
    const auto length = static_cast<std::size_t>(size);
    if (length > buffer_.size()) {
      return absl::DataLossError(absl::StrCat("a netlink datagram has ", length, " bytes"));
    }
    return std::string_view(buffer_.data(), length);
  }
}

}  // namespace varnic::host
