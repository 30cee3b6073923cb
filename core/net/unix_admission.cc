#include "core/net/unix_admission.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

namespace varnic::net {
namespace {

template <class Id>
bool Contains(const std::vector<Id>& ids, Id id) {
  return std::find(ids.begin(), ids.end(), id) != ids.end();
}

absl::StatusOr<std::vector<gid_t>> SupplementaryGroups(int fd) {
  std::vector<gid_t> groups(32);
  while (true) {
    auto size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    const int result = getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size);
    // The kernel says how much room it would have needed.
    if (result != 0 && errno != ERANGE) {
      return absl::ErrnoToStatus(errno, "cannot read the peer's groups");
    }
    groups.resize(size / sizeof(gid_t));
    if (result == 0) return groups;
  }
}

}  // namespace

bool UnixAdmission::Admits(const Peer& peer) const {
  if (peer.kind != Peer::Kind::kUnix) return false;
  if (Contains(users, peer.uid) || Contains(groups, peer.gid)) return true;
  return std::any_of(peer.supplementary_groups.begin(), peer.supplementary_groups.end(),
                     [this](gid_t group) { return Contains(groups, group); });
}

mode_t UnixAdmission::SocketMode() const {
  const bool own_user_only =
      groups.empty() &&
      std::all_of(users.begin(), users.end(), [](uid_t user) { return user == geteuid(); });
  return own_user_only ? 0600 : 0666;
}

absl::StatusOr<Peer> ReadUnixPeer(int fd) {
  ucred credentials = {};
  socklen_t size = sizeof(credentials);
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) {
    return absl::ErrnoToStatus(errno, "cannot read the peer's credentials");
  }
  absl::StatusOr<std::vector<gid_t>> groups = SupplementaryGroups(fd);
  if (!groups.ok()) return groups.status();
  Peer peer;
  peer.kind = Peer::Kind::kUnix;
  peer.address = "unix";
  peer.uid = credentials.uid;
  peer.gid = credentials.gid;
  peer.pid = credentials.pid;
  peer.supplementary_groups = *std::move(groups);
  return peer;
}

}  // namespace varnic::net
