#include "core/host/network_watcher.h"

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/netlink.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "absl/status/status.h"
#include "base/logging.h"
#include "core/host/testing/own_network.h"
#include "core/host/testing/temporary_folder.h"
#include "core/server/loop_scheduler.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using rpc::NetworkChanged;
using testing::OwnNetwork;
using testing::TemporaryFolder;

// Holds this thread's system calls against `program` for the rest of its life.
template <std::size_t kSize>
bool Filter(sock_filter (&program)[kSize]) {
  const sock_fprog filter{static_cast<unsigned short>(kSize), program};
  return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

// Lets this thread open no netlink sockets from now on; false where that cannot be done.
bool ForbidNetlink() {
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_socket, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[0])),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AF_NETLINK, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  return Filter(program);
}

// The socket on which this process hears announcements of the network; -1 if there is none.
int AnnouncementsSocket() {
  for (int fd = 0; fd < 100; ++fd) {
    sockaddr_nl address{};
    socklen_t size = sizeof(address);
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0 &&
        address.nl_family == AF_NETLINK && address.nl_groups != 0) {
      return fd;
    }
  }
  return -1;
}

// Lets this thread read no datagrams from `fd` from now on; false where that cannot be done.
bool ForbidReading(int fd) {
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_recvfrom, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[0])),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(fd), 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EIO),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  return Filter(program);
}

// While it lives, this process can open no files.
class NoMoreDescriptors {
 public:
  NoMoreDescriptors() {
    EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &before_), 0);
    const rlimit none{0, before_.rlim_max};
    EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
  }
  ~NoMoreDescriptors() { EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &before_), 0); }

 private:
  rlimit before_{};
};

int warnings = 0;

bool CountWarning(int severity, const char* /*file*/, int /*line*/, std::size_t /*message_start*/,
                  const std::string& record) {
  EXPECT_EQ(severity, logging::LOGGING_WARNING) << record;
  EXPECT_THAT(record, ::testing::HasSubstr("not published for now"));
  ++warnings;
  return true;
}

class NetworkWatcherTest : public ::testing::Test {
 protected:
  // A test that says so ends there.
  static std::string WhyNoOwnNetwork() {
    static const absl::Status entered = testing::EnterOwnNetwork();
    if (!entered.ok()) return entered.ToString();
    const absl::Status status = OwnNetwork::AddCable("probe", "other");
    if (!status.ok()) return "this kernel has no such interfaces: " + status.ToString();
    OwnNetwork::Remove("probe");
    return "";
  }

  void Watch(absl::Duration quiet = absl::Milliseconds(20),
             absl::Duration retry = absl::Milliseconds(20)) {
    NetworkWatcherOptions options;
    options.debounce.quiet = quiet;
    options.retry = retry;
    options.interfaces_folder = folder_.path();
    watcher_.emplace(
        loop_, scheduler_, [this](const NetworkChanged& state) { states_.push_back(state); },
        options);
    const absl::Status status = watcher_->Start();
    ASSERT_TRUE(status.ok()) << status;
    WaitFor([](const NetworkChanged& /*any*/) { return true; });
  }

  // Until the newest state is such a one; it may be already.
  void WaitFor(const std::function<bool(const NetworkChanged& state)>& is_wanted) {
    EXPECT_TRUE(loop_.RunUntil([&] { return !states_.empty() && is_wanted(states_.back()); }));
  }

  static NetworkChanged::Interface InterfaceOf(const NetworkChanged& state,
                                               const std::string& name) {
    for (const auto& interface : state.interfaces()) {
      if (interface.name() == name) return interface;
    }
    return {};
  }

  static bool HasAddress(const NetworkChanged& state, const std::string& address) {
    const auto interface = InterfaceOf(state, "here");
    const auto& addresses = interface.addresses();
    return std::find(addresses.begin(), addresses.end(), address) != addresses.end();
  }

  TemporaryFolder folder_;  // Instead of the kernel's.
  net::EventLoop loop_;
  LoopScheduler scheduler_{loop_};
  std::vector<NetworkChanged> states_;
  std::optional<NetworkWatcher> watcher_;
};

TEST_F(NetworkWatcherTest, TellsWhatIsThereAtItsStart) {
  Watch();

  EXPECT_THAT(states_, ::testing::SizeIs(1));
  EXPECT_FALSE(states_[0].has_profile_id());
}

TEST_F(NetworkWatcherTest, StartSaysThatASandboxForbidsIt) {
  bool forbidden = false;
  absl::Status status;

  // A filter stays for the thread's life.
  std::thread([&] {
    forbidden = ForbidNetlink();
    NetworkWatcher watcher(loop_, scheduler_,
                           [](const NetworkChanged& /*state*/) { ADD_FAILURE(); });
    if (forbidden) status = watcher.Start();
  }).join();

  if (!forbidden) GTEST_SKIP() << "no system call can be filtered here";
  EXPECT_TRUE(absl::IsPermissionDenied(status)) << status;
  EXPECT_THAT(std::string(status.message()), ::testing::HasSubstr("cannot open a netlink socket"));
}

TEST_F(NetworkWatcherTest, MayGoWhileItAsks) {
  NetworkWatcher(loop_, scheduler_, [](const NetworkChanged& /*state*/) { ADD_FAILURE(); })
      .Start()
      .IgnoreError();

  while (loop_.RunPending() != 0) continue;
}

// From here on in a network that is the test's own.
TEST_F(NetworkWatcherTest, LinksThatComeAndGoAreTold) {
  if (const std::string why = WhyNoOwnNetwork(); !why.empty()) GTEST_SKIP() << why;
  Watch();
  EXPECT_EQ(states_[0].interfaces_size(), 0);
  EXPECT_FALSE(states_[0].online());

  ASSERT_TRUE(OwnNetwork::AddCable("here", "there").ok());
  WaitFor([](const NetworkChanged& state) { return InterfaceOf(state, "here").up(); });
  OwnNetwork::AddDefaultRoute("here");
  WaitFor([](const NetworkChanged& state) { return state.online(); });
  EXPECT_EQ(states_.back().connection_type(), NetworkChanged::ETHERNET);
  OwnNetwork::SetUp("there", false);  // As if the cable were pulled.
  WaitFor([](const NetworkChanged& state) { return !InterfaceOf(state, "here").up(); });
  EXPECT_FALSE(states_.back().online());
  OwnNetwork::Remove("here");

  WaitFor([](const NetworkChanged& state) { return state.interfaces_size() == 0; });
  EXPECT_EQ(states_.back().connection_type(), NetworkChanged::NONE);
}

TEST_F(NetworkWatcherTest, AddressesThatComeAndGoAreTold) {
  if (const std::string why = WhyNoOwnNetwork(); !why.empty()) GTEST_SKIP() << why;
  ASSERT_TRUE(OwnNetwork::AddCable("here", "there").ok());
  Watch();

  OwnNetwork::AddAddress("here", "192.0.2.9");
  WaitFor([](const NetworkChanged& state) { return HasAddress(state, "192.0.2.9"); });
  OwnNetwork::RemoveAddress("here", "192.0.2.9");
  WaitFor([](const NetworkChanged& state) { return !HasAddress(state, "192.0.2.9"); });

  OwnNetwork::Remove("here");
}

TEST_F(NetworkWatcherTest, WirelessInterfaceIsKnownByItsFolder) {
  if (const std::string why = WhyNoOwnNetwork(); !why.empty()) GTEST_SKIP() << why;
  folder_.Write("air/phy80211/name", "");
  folder_.Write("old/wireless/status", "");
  ASSERT_TRUE(OwnNetwork::AddCable("air", "old").ok());

  Watch();

  EXPECT_EQ(InterfaceOf(states_[0], "air").connection_type(), NetworkChanged::WIFI);
  EXPECT_EQ(InterfaceOf(states_[0], "old").connection_type(), NetworkChanged::WIFI);
  OwnNetwork::Remove("air");
}

TEST_F(NetworkWatcherTest, FailureIsLoggedAndTriedAgain) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the sanitizers need descriptors themselves";
#endif
  if (const std::string why = WhyNoOwnNetwork(); !why.empty()) GTEST_SKIP() << why;
  ASSERT_TRUE(OwnNetwork::AddCable("here", "there").ok());
  Watch();
  OwnNetwork::AddAddress("here", "192.0.2.9");
  warnings = 0;
  logging::SetLogMessageHandler(&CountWarning);
  {
    const NoMoreDescriptors no_more_descriptors;
    EXPECT_TRUE(loop_.RunUntil([] { return warnings != 0; }));
  }

  WaitFor([](const NetworkChanged& state) { return HasAddress(state, "192.0.2.9"); });

  logging::SetLogMessageHandler(nullptr);
  EXPECT_EQ(warnings, 1);
  OwnNetwork::Remove("here");
}

// Two announcements, of which only the first can be read: what follows it lists the network, and
// announcements count again.
TEST_F(NetworkWatcherTest, AnnouncementsCountAgainOnceAListHasSucceededAfterAFailure) {
  if (const std::string why = WhyNoOwnNetwork(); !why.empty()) GTEST_SKIP() << why;
  ASSERT_TRUE(OwnNetwork::AddCable("here", "there").ok());
  warnings = 0;
  logging::SetLogMessageHandler(&CountWarning);
  bool forbidden = false;

  // A filter stays for the thread's life.
  std::thread([&] {
    Watch(/*quiet=*/absl::Seconds(1), /*retry=*/absl::Hours(1));
    OwnNetwork::AddAddress("here", "192.0.2.9");
    const int socket = AnnouncementsSocket();
    pollfd unread{socket, POLLIN, 0};
    EXPECT_TRUE(loop_.RunUntil([&] { return ::poll(&unread, 1, 0) == 0; }));
    forbidden = ForbidReading(socket);
    if (!forbidden) return;
    OwnNetwork::AddAddress("here", "192.0.2.10");
    EXPECT_TRUE(loop_.RunUntil([] { return warnings != 0; }));
    EXPECT_EQ(::fcntl(0, F_DUPFD, socket), socket);  // So that the next socket is another.
    WaitFor([](const NetworkChanged& state) { return HasAddress(state, "192.0.2.10"); });

    OwnNetwork::AddAddress("here", "192.0.2.11");

    WaitFor([](const NetworkChanged& state) { return HasAddress(state, "192.0.2.11"); });
    watcher_.reset();
    ::close(socket);
  }).join();

  logging::SetLogMessageHandler(nullptr);
  OwnNetwork::Remove("here");
  if (!forbidden) GTEST_SKIP() << "no system call can be filtered here";
}

// Far more than a socket has room for while nobody reads it.
TEST_F(NetworkWatcherTest, StateIsRightAfterMoreChangesThanCanBeAnnounced) {
  if (const std::string why = WhyNoOwnNetwork(); !why.empty()) GTEST_SKIP() << why;
  ASSERT_TRUE(OwnNetwork::AddCable("here", "there").ok());
  Watch();
  const std::size_t told_before = states_.size();

  for (int i = 0; i < 2000; ++i) {
    OwnNetwork::AddAddress("here", "192.0.2.9");
    OwnNetwork::RemoveAddress("here", "192.0.2.9");
  }
  OwnNetwork::AddAddress("here", "192.0.2.10");

  WaitFor([](const NetworkChanged& state) { return HasAddress(state, "192.0.2.10"); });
  EXPECT_FALSE(HasAddress(states_.back(), "192.0.2.9"));
  EXPECT_LE(states_.size() - told_before, 10u);
  OwnNetwork::Remove("here");
}

}  // namespace
}  // namespace varnic::host
