#ifndef CORE_NET_UNIX_ADMISSION_H_
#define CORE_NET_UNIX_ADMISSION_H_

#include <sys/types.h>
#include <unistd.h>

#include <vector>

#include "absl/status/statusor.h"
#include "core/net/peer.h"

namespace varnic::net {

// Who may connect to a Unix-domain socket. Asked at accept, before a byte is read.
struct UnixAdmission {
  // A user listed here, or a member of a group listed here, gets in; nobody else does, root
  // included.
  bool Admits(const Peer& peer) const;

  // The mode of the socket's file: 0600 while only this process's own user may come, or else 0666,
  // for then it is this list, and not the file, that keeps others out.
  mode_t SocketMode() const;

  std::vector<uid_t> users = {geteuid()};
  std::vector<gid_t> groups;
};

// The process that made the connection of the socket `fd`.
absl::StatusOr<Peer> ReadUnixPeer(int fd);

}  // namespace varnic::net

#endif  // CORE_NET_UNIX_ADMISSION_H_
