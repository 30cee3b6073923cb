#include "core/net/unix_admission.h"

#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "core/net/socket_stream.h"
#include "core/net/testing/test_certificates.h"

namespace varnic::net {
namespace {

using ::testing::HasSubstr;
using ::testing::UnorderedElementsAreArray;

constexpr uid_t kNobody = 65534;
constexpr gid_t kSomeGroup = 54321;

Peer UnixPeer(uid_t uid, gid_t gid, std::vector<gid_t> supplementary_groups = {}) {
  Peer peer;
  peer.kind = Peer::Kind::kUnix;
  peer.uid = uid;
  peer.gid = gid;
  peer.supplementary_groups = std::move(supplementary_groups);
  return peer;
}

TEST(UnixAdmissionTest, AdmitsThisUserAloneByDefault) {
  const UnixAdmission admission;

  EXPECT_TRUE(admission.Admits(UnixPeer(geteuid(), 1)));
  EXPECT_FALSE(admission.Admits(UnixPeer(geteuid() + 1, getegid())));
}

TEST(UnixAdmissionTest, AdmitsWhoIsListedAndNobodyElse) {
  UnixAdmission admission;
  admission.users = {1000};
  admission.groups = {27};

  EXPECT_TRUE(admission.Admits(UnixPeer(1000, 1)));
  EXPECT_TRUE(admission.Admits(UnixPeer(1, 27)));
  EXPECT_TRUE(admission.Admits(UnixPeer(1, 1, {5, 27})));
  EXPECT_FALSE(admission.Admits(UnixPeer(0, 0)));
  EXPECT_FALSE(admission.Admits(UnixPeer(27, 1000, {1000})));
}

TEST(UnixAdmissionTest, EmptyListAdmitsNobody) {
  UnixAdmission admission;
  admission.users = {};

  EXPECT_FALSE(admission.Admits(UnixPeer(geteuid(), getegid())));
}

TEST(UnixAdmissionTest, PeerOfAnotherKindIsNotAdmitted) {
  UnixAdmission admission;
  Peer tcp = UnixPeer(geteuid(), getegid());
  tcp.kind = Peer::Kind::kTcp;

  EXPECT_FALSE(admission.Admits(tcp));
}

TEST(UnixAdmissionTest, SocketIsOpenToOthersOnlyIfOthersAreListed) {
  UnixAdmission admission;
  EXPECT_EQ(admission.SocketMode(), 0600u);

  admission.users.push_back(geteuid() + 1);
  EXPECT_EQ(admission.SocketMode(), 0666u);

  admission.users = {};
  admission.groups = {27};
  EXPECT_EQ(admission.SocketMode(), 0666u);
}

TEST(UnixPeerTest, IsTheProcessThatConnected) {
  int ends[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);

  const auto peer = ReadUnixPeer(ends[0]);

  ASSERT_TRUE(peer.ok()) << peer.status();
  EXPECT_EQ(peer->kind, Peer::Kind::kUnix);
  EXPECT_EQ(peer->uid, geteuid());
  EXPECT_EQ(peer->gid, getegid());
  EXPECT_EQ(peer->pid, getpid());
  std::vector<gid_t> groups(static_cast<std::size_t>(getgroups(0, nullptr)));
  ASSERT_GE(getgroups(static_cast<int>(groups.size()), groups.data()), 0);
  EXPECT_THAT(peer->supplementary_groups, UnorderedElementsAreArray(groups));
  close(ends[0]);
  close(ends[1]);
}

TEST(UnixPeerTest, WhatIsNoSocketHasNoPeer) {
  EXPECT_FALSE(ReadUnixPeer(-1).ok());
}

// Whom a child process is to be.
struct Child {
  uid_t uid = geteuid();
  gid_t gid = getegid();
  std::vector<gid_t> supplementary_groups;
};

// Connects to the socket at `path` in a child process, which then waits to be let go; exits with 0
// if it got a byte before that.
pid_t ConnectAs(const Child& child, const std::string& path) {
  const pid_t pid = fork();
  if (pid != 0) return pid;
  alarm(60);
  if (geteuid() == 0 &&
      (setgroups(child.supplementary_groups.size(), child.supplementary_groups.data()) != 0 ||
       setgid(child.gid) != 0 || setuid(child.uid) != 0)) {
    _exit(2);
  }
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size());
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) _exit(3);
  char byte;
  _exit(read(fd, &byte, 1) == 1 ? 0 : 1);
}

// A listener that greets each connection with one byte, and closes it.
class AdmissionTest : public ::testing::Test {
 protected:
  AdmissionTest() { chmod(folder_.Path("").c_str(), 0711); }

  void Listen(const UnixAdmission& admission) {
    ListenerOptions options;
    options.unix_admission = admission;
    auto listener = Listener::Listen(
        loop_, *Address::Parse("unix:" + path_),
        [this](std::unique_ptr<ByteStream> stream) {
          peers_.push_back(stream->peer());
          EXPECT_EQ(stream->Write("!"), 1u);
        },
        options);
    ASSERT_TRUE(listener.ok()) << listener.status();
    listener_ = *std::move(listener);
  }

  // Whether a process is let in.
  bool LetsIn(const Child& child) {
    const std::uint64_t refused = listener_->refused();
    const std::size_t admitted = peers_.size();
    const pid_t pid = ConnectAs(child, path_);
    loop_.RunUntil([&] { return listener_->refused() > refused || peers_.size() > admitted; });
    int result = -1;
    EXPECT_EQ(waitpid(pid, &result, 0), pid);
    const bool admits = peers_.size() > admitted;
    EXPECT_EQ(result, W_EXITCODE(admits ? 0 : 1, 0));
    if (admits) {
      EXPECT_EQ(peers_.back().pid, pid);
      EXPECT_EQ(peers_.back().uid, child.uid);
    }
    return admits;
  }

  testing::TestFolder folder_;
  const std::string path_ = folder_.Path("host.sock");
  EventLoop loop_;
  std::vector<Peer> peers_;
  std::unique_ptr<Listener> listener_;
};

TEST_F(AdmissionTest, OwnUserIsLetIn) {
  Listen(UnixAdmission());

  EXPECT_TRUE(LetsIn(Child()));
  EXPECT_EQ(listener_->refused(), 0u);
}

TEST_F(AdmissionTest, WhoIsNotListedIsClosedAndCounted) {
  UnixAdmission admission;
  admission.users = {geteuid() + 1};
  Listen(admission);

  ::testing::internal::CaptureStderr();
  EXPECT_FALSE(LetsIn(Child()));
  EXPECT_FALSE(LetsIn(Child()));
  const std::string log = ::testing::internal::GetCapturedStderr();

  EXPECT_EQ(listener_->refused(), 2u);
  EXPECT_THAT(log, HasSubstr("Refused a connection address=unix://" + path_ +
                             " uid=" + std::to_string(geteuid()) + " gid="));
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
}

TEST_F(AdmissionTest, AnotherUserIsRefusedWhateverTheFileSays) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can be another user";
  Listen(UnixAdmission());
  chmod(path_.c_str(), 0666);

  EXPECT_FALSE(LetsIn({kNobody, kNobody, {}}));
}

TEST_F(AdmissionTest, AnotherUserWhoIsListedIsLetIn) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can be another user";
  UnixAdmission admission;
  admission.users.push_back(kNobody);
  Listen(admission);

  EXPECT_TRUE(LetsIn({kNobody, kNobody, {}}));
}

TEST_F(AdmissionTest, MemberOfAListedGroupIsLetIn) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can be another user";
  UnixAdmission admission;
  admission.groups = {kSomeGroup};
  Listen(admission);

  EXPECT_TRUE(LetsIn({kNobody, kSomeGroup, {}}));
  EXPECT_TRUE(LetsIn({kNobody, kNobody, {4, kSomeGroup}}));
  EXPECT_FALSE(LetsIn({kNobody, kNobody, {4}}));
}

TEST_F(AdmissionTest, MemberOfManyGroupsIsKnownWithAllOfThem) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can have any groups";
  std::vector<gid_t> groups;
  for (gid_t group = 1000; group < 1100; ++group) groups.push_back(group);
  UnixAdmission admission;
  admission.groups = {1099};
  Listen(admission);

  EXPECT_TRUE(LetsIn({kNobody, kNobody, groups}));
  EXPECT_THAT(peers_.back().supplementary_groups, UnorderedElementsAreArray(groups));
}

}  // namespace
}  // namespace varnic::net
