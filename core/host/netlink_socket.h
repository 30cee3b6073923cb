#ifndef CORE_HOST_NETLINK_SOCKET_H_
#define CORE_HOST_NETLINK_SOCKET_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "core/host/file_descriptor.h"

namespace varnic::host {

// A socket to the kernel's NETLINK_ROUTE family that never waits. Needs no privilege; a sandbox may
// forbid it all the same, and then Open() fails.
class NetlinkSocket {
 public:
  // `groups` are those whose announcements come in by themselves: RTMGRP_... bits.
  static absl::StatusOr<NetlinkSocket> Open(std::uint32_t groups);

  int fd() const { return fd_.get(); }

  absl::Status Send(std::string_view request);

  // The next datagram of the kernel's, valid until the next call, or nothing if none is there. What
  // other processes send is passed over. RESOURCE_EXHAUSTED: the kernel had more to say than there
  // was room for, and announcements are lost; the socket works on. DATA_LOSS: a datagram was longer
  // than any should be, and is gone. Any other error stays.
  absl::StatusOr<std::optional<std::string_view>> Receive();

 private:
  explicit NetlinkSocket(FileDescriptor fd);

  FileDescriptor fd_;
  std::string buffer_;
};

}  // namespace varnic::host

#endif  // CORE_HOST_NETLINK_SOCKET_H_
