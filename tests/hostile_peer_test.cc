// Peers that mean harm, or crash, against a server that must go on serving everybody else.

#include <dirent.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "core/client/client.h"
#include "rpc/profile/profile.client.h"
#include "tests/raw_peer.h"
#include "tests/served_host.h"

namespace varnic {
namespace {

// A thousand, or as many as this process may hold both ends of.
int ManyConnections() {
  rlimit limit;
  EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  limit.rlim_cur = limit.rlim_max;
  EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  return static_cast<int>(std::min<rlim_t>(1000, (limit.rlim_cur - 100) / 2));
}

int OpenDescriptors() {
  DIR* folder = opendir("/proc/self/fd");
  int count = 0;
  while (readdir(folder) != nullptr) ++count;
  closedir(folder);
  return count;
}

std::string RandomBytes(unsigned seed, std::size_t size) {
  std::mt19937 random(seed);
  std::string bytes;
  while (bytes.size() < size) bytes.push_back(static_cast<char>(random()));
  return bytes;
}

class HostilePeerTest : public ::testing::TestWithParam<const char*> {
 protected:
  // Whatever the peer did.
  ~HostilePeerTest() override { EXPECT_EQ(FreshCall(served_.address()), absl::OkStatus()); }

  RawPeer NewPeer() { return RawPeer(served_.address()); }
  TestHost& host() { return served_.host(); }
  // The server has nothing left to do that was there before.
  void WaitForServer() {
    served_.RunOnServer([] {});
  }
  void AnswerKept() {
    served_.RunOnServer([this] { host().AnswerKept(); });
  }
  // False if they stay open.
  bool WaitForDescriptors(int count) {
    for (int i = 0; i < 100'000 && OpenDescriptors() > count; ++i) WaitForServer();
    return OpenDescriptors() <= count;
  }

  ServedHost served_{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(Sockets, HostilePeerTest, ::testing::Values("unix", "127.0.0.1:0"),
                         [](const auto& socket) {
                           return std::string(socket.param) == "unix" ? "Unix" : "Tcp";
                         });

TEST_P(HostilePeerTest, TextEndsTheConnection) {
  RawPeer peer = NewPeer();

  peer.Send("GET / HTTP/1.1\r\nHost: localhost\r\n\r\n");

  peer.ReadUntilClosed();
}

TEST_P(HostilePeerTest, TlsClientHelloEndsTheConnection) {
  RawPeer peer = NewPeer();

  peer.Send(std::string("\x16\x03\x01\x00\xc8\x01\x00\x00\xc4\x03\x03", 11) + RandomBytes(1, 189));

  peer.ReadUntilClosed();
}

TEST_P(HostilePeerTest, RandomBytesEndTheConnection) {
  for (unsigned seed = 1; seed <= 200; ++seed) {
    RawPeer peer = NewPeer();
    peer.Send(RandomBytes(seed, 10 * seed + 14));
    peer.ReadUntilClosed();
  }
}

TEST_P(HostilePeerTest, GarbageBehindThePrefaceHurtsNobody) {
  for (unsigned seed = 1; seed <= 200; ++seed) {
    RawPeer peer = NewPeer();
    peer.Send(ClientPreface() + RandomBytes(seed, 2000));
  }
}

TEST_P(HostilePeerTest, FramesOfRandomContentHurtNobody) {
  for (unsigned seed = 1; seed <= 200; ++seed) {
    std::mt19937 random(seed);
    RawPeer peer = NewPeer();
    std::string bytes = ClientPreface() + PathCall(1, "kept");
    for (int i = 0; i < 50; ++i) {
      bytes += Http2Frame(static_cast<uint8_t>(random() % 12), static_cast<uint8_t>(random()),
                          random() % 8, RandomBytes(random(), random() % 40));
    }
    peer.Send(bytes);
  }
}

TEST_P(HostilePeerTest, EveryByteOfACallMayBeTheLastOne) {
  const std::string call = ClientPreface() + PathCall(1, "one");
  for (std::size_t size = 0; size <= call.size(); ++size) {
    NewPeer().Send(call.substr(0, size));
  }
}

TEST_P(HostilePeerTest, CallMayComeByteByByte) {
  RawPeer peer = NewPeer();

  for (const char byte : ClientPreface() + PathCall(1, "byte by byte")) {
    ASSERT_TRUE(peer.Send({&byte, 1}));
  }

  std::string answer;
  while (answer.find("/profiles/byte by byte") == std::string::npos) {
    const std::string more = peer.ReadSome();
    ASSERT_FALSE(more.empty());
    answer += more;
  }
}

TEST_P(HostilePeerTest, HalfAFrameAndSilenceKeepsNobodyElseWaiting) {
  RawPeer peer = NewPeer();
  const std::string call = PathCall(1, "one");

  peer.Send(ClientPreface() + call.substr(0, call.size() / 2));
  peer.ReadSome();  // The server has begun to serve it.

  EXPECT_EQ(FreshCall(served_.address()), absl::OkStatus());
}

TEST_P(HostilePeerTest, PeerMayVanishBeforeTheOverrideAnswers) {
  RawPeer peer = NewPeer();
  peer.Send(ClientPreface() + PathCall(1, "kept"));
  ASSERT_TRUE(host().WaitForKept(1));

  peer.Close();

  ASSERT_TRUE(host().WaitForCancelled(1));
  AnswerKept();
  EXPECT_EQ(host().notifications(), 1);
}

TEST_P(HostilePeerTest, PeerMayVanishWhileTheOverrideAnswers) {
  RawPeer peer = NewPeer();
  peer.Send(ClientPreface() + PathCall(1, "kept"));
  ASSERT_TRUE(host().WaitForKept(1));

  // In one turn of the server's: it learns of both at once.
  served_.RunOnServer([&] {
    peer.Close();
    host().AnswerKept();
  });

  EXPECT_EQ(host().notifications(), 1);
}

TEST_P(HostilePeerTest, PeerMayVanishAfterTheOverrideHasAnswered) {
  for (int i = 0; i < 100; ++i) {
    RawPeer peer = NewPeer();
    peer.Send(ClientPreface() + PathCall(1, std::string(100, 'x')) + PathCall(3, "later"));
  }
}

TEST_P(HostilePeerTest, PeerMayVanishInTheMiddleOfALargeMessage) {
  const std::string half = std::string("\0\0\3\0\0", 5) + std::string(10'000, 'x');
  for (int i = 0; i < 10; ++i) {
    RawPeer peer = NewPeer();
    peer.Send(ClientPreface() + PathHeaders(1) + Http2Frame(/*DATA*/ 0, 0, 1, half));
    peer.ReadSome();
  }
}

TEST_P(HostilePeerTest, PeerMayVanishInTheMiddleOfALargeAnswer) {
  const std::string large_window("\x7f\0\0\0", 4);
  for (int i = 0; i < 10; ++i) {
    RawPeer peer = NewPeer();
    std::string calls = ClientPreface() + Http2Frame(/*WINDOW_UPDATE*/ 8, 0, 0, large_window);
    for (uint32_t stream_id = 1; stream_id < 200; stream_id += 2) {
      calls += PathCall(stream_id, std::string(15'000, 'x'));
    }
    peer.Send(calls);
    peer.ReadSome();
  }
}

TEST_P(HostilePeerTest, ThousandsOfConnectionsLeaveNoDescriptorBehind) {
  ASSERT_EQ(FreshCall(served_.address()), absl::OkStatus());
  NewPeer().ReadSome();
  WaitForServer();
  const int before = OpenDescriptors();

  for (int i = 0; i < 3000; ++i) {
    RawPeer peer = NewPeer();
    if (i % 3 == 1) peer.Send(ClientPreface());
    if (i % 3 == 2) peer.Send(ClientPreface() + PathCall(1, "one"));
  }

  EXPECT_TRUE(WaitForDescriptors(before)) << OpenDescriptors() << " and not " << before;
}

TEST_P(HostilePeerTest, ThousandConnectionsAtOnceAreServed) {
  const int count = ManyConnections();
  std::vector<std::unique_ptr<RawPeer>> peers;
  for (int i = 0; i < count; ++i) {
    peers.push_back(std::make_unique<RawPeer>(served_.address()));
    ASSERT_TRUE(peers.back()->Send(ClientPreface() + PathCall(1, "kept")));
  }

  EXPECT_TRUE(host().WaitForKept(count));
  EXPECT_EQ(FreshCall(served_.address()), absl::OkStatus());

  peers.clear();
  EXPECT_TRUE(host().WaitForCancelled(count));
}

TEST_P(HostilePeerTest, PeerThatReadsNoAnswersIsLetGo) {
  RawPeer peer = NewPeer();
  bool open = peer.Send(ClientPreface());

  // It never acknowledges the server's limits either.
  uint32_t stream_id = 1;
  for (; open && stream_id < 4'000'000; stream_id += 2) {
    open = peer.Send(PathCall(stream_id, "one"));
  }

  EXPECT_FALSE(open) << "after " << stream_id / 2 << " calls";
}

TEST_P(HostilePeerTest, PeerThatOpensNoWindowHoldsUpNobodyElse) {
  RawPeer peer = NewPeer();
  const std::string no_window("\0\4\0\0\0\0", 6);  // SETTINGS_INITIAL_WINDOW_SIZE

  ASSERT_TRUE(peer.Send(ClientPreface() + Http2Frame(4, 0, 0, no_window)));
  for (uint32_t stream_id = 1; stream_id < 2000; stream_id += 2) {
    ASSERT_TRUE(peer.Send(PathCall(stream_id, "kept")));
  }
  ASSERT_TRUE(host().WaitForKept(1000));
  AnswerKept();

  EXPECT_EQ(FreshCall(served_.address()), absl::OkStatus());
}

TEST_P(HostilePeerTest, CallsThatAreResetAtOnceEndTheConnection) {
  RawPeer peer = NewPeer();
  bool open = peer.Send(ClientPreface());

  for (uint32_t stream_id = 1; open && stream_id < 200'000; stream_id += 2) {
    open = peer.Send(PathHeaders(stream_id) +
                     Http2Frame(/*RST_STREAM*/ 3, 0, stream_id, std::string("\0\0\0\x8", 4)));
  }

  peer.ReadUntilClosed();
}

TEST_P(HostilePeerTest, HeadersThatGrowWhenTheyAreDecompressedResetTheirStream) {
  RawPeer peer = NewPeer();
  // A field of 4000 bytes for the table, and then nothing but that field's number.
  const std::string entry = std::string("\x40\x01x\x7f\xa1\x1e", 6) + std::string(4000, 'x');
  const std::string bomb = entry + std::string(12'000, '\xbe');

  peer.Send(ClientPreface() + Http2Frame(/*HEADERS*/ 1, /*END_HEADERS*/ 4, 1, bomb));

  const std::string reset = Http2Frame(/*RST_STREAM*/ 3, 0, 1, std::string("\0\0\0\xb", 4));
  std::string answer;
  while (answer.find(reset) == std::string::npos) {
    const std::string more = peer.ReadSome();
    ASSERT_FALSE(more.empty());
    answer += more;
  }
}

TEST_P(HostilePeerTest, FloodOfPingsByAPeerThatReadsNothingEndsTheConnection) {
  RawPeer peer = NewPeer();
  std::string pings;
  for (int i = 0; i < 1000; ++i) pings += Http2Frame(/*PING*/ 6, 0, 0, "12345678");
  bool open = peer.Send(ClientPreface());

  for (int i = 0; open && i < 10'000; ++i) open = peer.Send(pings);

  EXPECT_FALSE(open);
}

TEST_P(HostilePeerTest, PeerThatFloodsIsToldWhy) {
  RawPeer peer = NewPeer();
  std::string settings;
  for (int i = 0; i < 10'000; ++i) settings += Http2Frame(/*SETTINGS*/ 4, 0, 0, "");

  peer.Send(ClientPreface() + settings);

  EXPECT_THAT(peer.ReadUntilClosed(), ::testing::EndsWith("too_many_control_frames"));
  served_.RunOnServer([this] {
    const net::EdgeCounters& counters = served_.server().edge_counters();
    EXPECT_EQ(counters.ended_by[static_cast<std::size_t>(net::EdgeRule::kControlFrames)], 1u);
  });
}

TEST(FloodLimitsTest, AreOptionsOfTheServer) {
  ServerOptions options;
  options.floods.resets = {5, 0};
  ServedHost served("unix", options);
  RawPeer peer(served.address());
  std::string calls;
  for (uint32_t stream_id = 1; stream_id < 13; stream_id += 2) {
    calls += PathHeaders(stream_id) + Http2Frame(/*RST_STREAM*/ 3, 0, stream_id, "1234");
  }

  peer.Send(ClientPreface() + calls);

  EXPECT_THAT(peer.ReadUntilClosed(), ::testing::EndsWith("too_many_resets"));
}

// A client in a process of its own: waits for the server's address, makes calls that the host
// keeps, and waits for the answers.
[[noreturn]] void RunClientProcess(int address_pipe) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  char address[200] = {};
  if (read(address_pipe, address, sizeof(address) - 1) <= 0) _exit(1);
  net::EventLoop loop;
  Client client(loop, address);
  rpc::ProfileClient profiles(client);
  for (int i = 0; i < 100; ++i) {
    profiles.Path(MakeProfileId("kept"), absl::InfiniteDuration(), [](const auto& /*path*/) {});
  }
  loop.Run();
  _exit(0);
}

TEST(KilledClientTest, CallsOfAClientThatIsKilledAreCancelled) {
  int address_pipe[2];
  ASSERT_EQ(pipe(address_pipe), 0);
  const pid_t child = fork();  // Before the server has its thread.
  if (child == 0) RunClientProcess(address_pipe[0]);
  ServedHost served;
  const auto size = static_cast<ssize_t>(served.address().size());
  ASSERT_EQ(write(address_pipe[1], served.address().c_str(), served.address().size()), size);
  EXPECT_TRUE(served.host().WaitForKept(100));

  kill(child, SIGKILL);

  EXPECT_TRUE(served.host().WaitForCancelled(100));
  EXPECT_EQ(FreshCall(served.address()), absl::OkStatus());
  served.RunOnServer([&] { served.host().AnswerKept(); });
  EXPECT_EQ(served.host().notifications(), 100);
  EXPECT_EQ(waitpid(child, nullptr, 0), child);
  close(address_pipe[0]);
  close(address_pipe[1]);
}

}  // namespace
}  // namespace varnic
