#include "core/net/socket_stream.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace varnic::net {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;

Address Parse(const std::string& text) {
  const auto address = Address::Parse(text);
  EXPECT_TRUE(address.ok()) << address.status();
  return address.value_or(Address());
}

// One end of a connection, and what it has heard.
class End : public ByteStream::Visitor {
 public:
  void Start(std::unique_ptr<ByteStream> stream) {
    stream_ = std::move(stream);
    stream_->Start(*this);
  }
  // Sends all of `bytes`, as the peer reads them.
  void Send(std::string bytes) {
    unsent_ += std::move(bytes);
    OnWritable();
  }
  void Close() { stream_ = nullptr; }
  void CloseWhenBytesCome() { close_when_bytes_come_ = true; }

  bool connected() const { return stream_ != nullptr; }
  bool all_sent() const { return unsent_.empty(); }
  int closes() const { return closes_; }
  const absl::Status& status() const { return status_; }
  const std::string& received() const { return received_; }

 private:
  void OnBytes(std::string_view bytes) override {
    received_ += bytes;
    if (close_when_bytes_come_) Close();
  }
  void OnWritable() override { unsent_.erase(0, stream_->Write(unsent_)); }
  void OnClosed(const absl::Status& status) override {
    ++closes_;
    status_ = status;
    Close();
  }

  std::unique_ptr<ByteStream> stream_;
  std::string unsent_;
  std::string received_;
  absl::Status status_;
  int closes_ = 0;
  bool close_when_bytes_come_ = false;
};

class SocketStreamTest : public ::testing::Test {
 protected:
  SocketStreamTest() {
    std::string folder = ::testing::TempDir() + "/varnic-net-XXXXXX";
    if (::mkdtemp(folder.data()) != nullptr) folder_ = folder;
    EXPECT_FALSE(folder_.empty());
  }
  ~SocketStreamTest() override {
    std::error_code ignored;
    if (!folder_.empty()) std::filesystem::remove_all(folder_, ignored);
  }

  std::string Path() const { return folder_ + "/host.sock"; }
  Address UnixAddress() const { return Parse("unix:" + Path()); }

  absl::StatusOr<std::unique_ptr<Listener>> Listen(const Address& address) {
    return Listener::Listen(loop_, address, [this](std::unique_ptr<ByteStream> stream) {
      server_.Start(std::move(stream));
    });
  }

  // Connects both ends.
  void Connect(const Address& address) {
    const auto connector =
        Connector::Connect(loop_, address, [this](absl::StatusOr<std::unique_ptr<ByteStream>> s) {
          ASSERT_TRUE(s.ok()) << s.status();
          client_.Start(*std::move(s));
        });
    RunUntil([&] { return client_.connected() && server_.connected(); });
  }

  absl::Status ConnectError(const Address& address) {
    absl::Status status;
    bool called = false;
    const auto connector =
        Connector::Connect(loop_, address, [&](absl::StatusOr<std::unique_ptr<ByteStream>> s) {
          called = true;
          status = s.status();
        });
    EXPECT_FALSE(called) << "inside Connect()";
    RunUntil([&] { return called; });
    return status;
  }

  void RunUntil(absl::FunctionRef<bool()> done) { EXPECT_TRUE(loop_.RunUntil(done)); }

  std::string folder_;
  EventLoop loop_;
  End server_;
  End client_;
};

// A socket file on which nobody listens.
void LeaveStaleSocket(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
  close(fd);
}

TEST_F(SocketStreamTest, TheSocketFileIsForItsOwnerOnly) {
  const mode_t old_mask = umask(0);
  const auto listener = Listen(UnixAddress());
  umask(old_mask);

  ASSERT_TRUE(listener.ok()) << listener.status();
  struct stat info;
  ASSERT_EQ(stat(Path().c_str(), &info), 0);
  EXPECT_TRUE(S_ISSOCK(info.st_mode));
  EXPECT_EQ(info.st_mode & 07777, 0600u);
}

TEST_F(SocketStreamTest, TheSocketFileGoesWithItsListener) {
  { ASSERT_TRUE(Listen(UnixAddress()).ok()); }

  EXPECT_FALSE(std::filesystem::exists(Path()));
}

TEST_F(SocketStreamTest, AListenerLeavesTheFileOfItsSuccessorAlone) {
  auto old_listener = Listen(UnixAddress());
  ASSERT_TRUE(old_listener.ok());
  std::filesystem::remove(Path());
  const auto new_listener = Listen(UnixAddress());
  ASSERT_TRUE(new_listener.ok()) << new_listener.status();

  old_listener->reset();

  EXPECT_TRUE(std::filesystem::exists(Path()));
  Connect(UnixAddress());
}

TEST_F(SocketStreamTest, AStaleSocketFileIsReplaced) {
  LeaveStaleSocket(Path());

  const auto listener = Listen(UnixAddress());

  ASSERT_TRUE(listener.ok()) << listener.status();
  Connect(UnixAddress());
}

TEST_F(SocketStreamTest, ASocketOnWhichSomebodyListensIsRefusedAndKeepsWorking) {
  const auto first = Listen(UnixAddress());
  ASSERT_TRUE(first.ok());

  const auto second = Listen(UnixAddress());

  EXPECT_EQ(second.status().code(), absl::StatusCode::kFailedPrecondition);
  EXPECT_THAT(std::string(second.status().message()),
              AllOf(HasSubstr(Path()), HasSubstr("another process listens there")));
  bool accepted = false;
  RunUntil([&] { return accepted = server_.connected(); });  // The second one's probe.
  server_.Close();
  Connect(UnixAddress());
}

TEST_F(SocketStreamTest, AFileThatIsNoSocketIsRefusedAndUntouched) {
  std::ofstream(Path()) << "precious";

  const auto listener = Listen(UnixAddress());

  EXPECT_EQ(listener.status().code(), absl::StatusCode::kFailedPrecondition);
  EXPECT_THAT(std::string(listener.status().message()),
              AllOf(HasSubstr(Path()), HasSubstr("not a socket")));
  std::string contents;
  std::ifstream(Path()) >> contents;
  EXPECT_EQ(contents, "precious");
}

TEST_F(SocketStreamTest, ALinkInTheWayIsRefusedAndUntouched) {
  std::filesystem::create_symlink(folder_ + "/elsewhere", Path());

  const auto listener = Listen(UnixAddress());

  EXPECT_EQ(listener.status().code(), absl::StatusCode::kFailedPrecondition);
  EXPECT_TRUE(std::filesystem::is_symlink(Path()));
  EXPECT_FALSE(std::filesystem::exists(folder_ + "/elsewhere"));
}

TEST_F(SocketStreamTest, AFolderThatIsMissingIsNamed) {
  const auto listener = Listen(Parse("unix:" + folder_ + "/missing/host.sock"));

  EXPECT_EQ(listener.status().code(), absl::StatusCode::kFailedPrecondition);
  EXPECT_THAT(std::string(listener.status().message()),
              AllOf(HasSubstr("missing/host.sock"), HasSubstr("No such file")));
}

TEST_F(SocketStreamTest, TcpIsServedOnLoopbackOnly) {
  for (const char* text : {"0.0.0.0:0", "192.0.2.1:0", "[::]:0", "example.com:0"}) {
    const auto listener = Listen(Parse(text));

    EXPECT_EQ(listener.status().code(), absl::StatusCode::kFailedPrecondition) << text;
    EXPECT_THAT(std::string(listener.status().message()),
                AllOf(HasSubstr(text), HasSubstr("loopback")));
  }
}

TEST_F(SocketStreamTest, PortZeroBecomesAPortThatWorks) {
  const auto listener = Listen(Parse("localhost:0"));

  ASSERT_TRUE(listener.ok()) << listener.status();
  EXPECT_NE((*listener)->address().port, 0);
  Connect((*listener)->address());
}

TEST_F(SocketStreamTest, APortThatIsTakenIsNamed) {
  const auto first = Listen(Parse("127.0.0.1:0"));
  ASSERT_TRUE(first.ok());

  const auto second = Listen((*first)->address());

  EXPECT_EQ(second.status().code(), absl::StatusCode::kFailedPrecondition);
  EXPECT_THAT(std::string(second.status().message()), HasSubstr((*first)->address().ToString()));
}

TEST_F(SocketStreamTest, ConnectingToNobodyIsUnavailableAndNamesTheAddress) {
  std::string tcp;
  {
    const auto listener = Listen(Parse("127.0.0.1:0"));
    ASSERT_TRUE(listener.ok());
    tcp = (*listener)->address().ToString();
  }

  for (const std::string& text : {tcp, "unix:" + Path()}) {
    const absl::Status status = ConnectError(Parse(text));

    EXPECT_EQ(status.code(), absl::StatusCode::kUnavailable) << status;
    EXPECT_THAT(std::string(status.message()), HasSubstr(Parse(text).ToString()));
  }
}

TEST_F(SocketStreamTest, ANameIsNotLookedUp) {
  const absl::Status status = ConnectError(Parse("example.com:80"));

  EXPECT_EQ(status.code(), absl::StatusCode::kInvalidArgument);
  EXPECT_THAT(std::string(status.message()), HasSubstr("example.com:80"));
}

TEST_F(SocketStreamTest, ADestroyedConnectorIsSilent) {
  const auto listener = Listen(UnixAddress());
  ASSERT_TRUE(listener.ok());
  for (const Address& address : {UnixAddress(), Parse("example.com:80")}) {
    Connector::Connect(loop_, address, [](auto) { ADD_FAILURE(); }) = nullptr;
  }

  // The connection may have been made all the same; its end is heard here.
  RunUntil([&] { return server_.closes() == 1; });
  loop_.RunPending();
}

TEST_F(SocketStreamTest, AConnectorMayBeDestroyedInItsCallback) {
  const auto listener = Listen(UnixAddress());
  ASSERT_TRUE(listener.ok());
  for (const Address& address : {UnixAddress(), Parse("unix:" + folder_ + "/nobody")}) {
    std::unique_ptr<Connector> connector;
    bool called = false;
    connector = Connector::Connect(loop_, address, [&](auto) {
      connector = nullptr;
      called = true;
    });

    RunUntil([&] { return called; });
  }
}

TEST_F(SocketStreamTest, LargeTransfersBothWaysArriveWhole) {
  const auto listener = Listen(UnixAddress());
  ASSERT_TRUE(listener.ok());
  Connect(UnixAddress());
  std::string bytes;
  for (int i = 0; i < 400'000; ++i) bytes += std::to_string(i);

  client_.Send(bytes);
  server_.Send(bytes + "!");
  EXPECT_FALSE(client_.all_sent()) << "too little to fill the socket";
  RunUntil([&] {
    return server_.received().size() >= bytes.size() && client_.received().size() > bytes.size();
  });

  EXPECT_TRUE(server_.received() == bytes);
  EXPECT_TRUE(client_.received() == bytes + "!");
}

TEST_F(SocketStreamTest, ThePeersCloseIsToldOnceBehindItsBytes) {
  const auto listener = Listen(Parse("127.0.0.1:0"));
  ASSERT_TRUE(listener.ok());
  Connect((*listener)->address());

  client_.Send("last words");
  client_.Close();
  RunUntil([&] { return server_.closes() > 0; });
  loop_.RunPending();

  EXPECT_EQ(server_.received(), "last words");
  EXPECT_EQ(server_.status(), absl::OkStatus());
  EXPECT_EQ(server_.closes(), 1);
}

TEST_F(SocketStreamTest, AWriteToAPeerThatIsGoneIsHeardAsTheEnd) {
  const auto listener = Listen(UnixAddress());
  ASSERT_TRUE(listener.ok());
  Connect(UnixAddress());

  server_.Send("unread");  // So that the close is not a clean one.
  client_.Close();
  server_.Send(std::string(1 << 20, 'x'));
  RunUntil([&] { return server_.closes() > 0; });

  EXPECT_EQ(server_.closes(), 1);
}

TEST_F(SocketStreamTest, AStreamMayBeDestroyedWhenBytesCome) {
  const auto listener = Listen(UnixAddress());
  ASSERT_TRUE(listener.ok());
  Connect(UnixAddress());
  server_.CloseWhenBytesCome();

  client_.Send(std::string(1 << 20, 'x'));
  RunUntil([&] { return client_.closes() == 1; });

  EXPECT_EQ(server_.closes(), 0);
}

TEST_F(SocketStreamTest, ADestroyedStreamIsSilent) {
  const auto listener = Listen(UnixAddress());
  ASSERT_TRUE(listener.ok());
  Connect(UnixAddress());
  client_.Send("not for anyone");

  server_.Close();
  RunUntil([&] { return client_.closes() == 1; });

  EXPECT_EQ(server_.received(), "");
  EXPECT_EQ(server_.closes(), 0);
}

// Lists this process's sockets that a program it starts would inherit.
std::vector<std::string> InheritedSockets() {
  std::vector<std::string> sockets;
  for (int fd = 0; fd < 1000; ++fd) {
    struct stat info;
    const int flags = fcntl(fd, F_GETFD);
    if (flags < 0 || fstat(fd, &info) != 0 || !S_ISSOCK(info.st_mode)) continue;
    if ((flags & FD_CLOEXEC) == 0) sockets.push_back(std::to_string(fd));
  }
  return sockets;
}

TEST_F(SocketStreamTest, NoSocketIsInheritedByChildProcesses) {
  const std::vector<std::string> before = InheritedSockets();
  const auto unix_listener = Listen(UnixAddress());
  ASSERT_TRUE(unix_listener.ok());
  const auto tcp_listener = Listen(Parse("127.0.0.1:0"));
  ASSERT_TRUE(tcp_listener.ok());
  Connect(UnixAddress());

  EXPECT_EQ(InheritedSockets(), before);
}

// Lets the process open no more file descriptors.
class NoDescriptors {
 public:
  NoDescriptors() {
    getrlimit(RLIMIT_NOFILE, &before_);
    rlimit none = before_;
    none.rlim_cur = 0;
    setrlimit(RLIMIT_NOFILE, &none);
  }
  ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &before_); }

 private:
  rlimit before_;
};

TEST_F(SocketStreamTest, WithoutDescriptorsAcceptingWaitsAndGoesOnLater) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the sanitizers need descriptors themselves";
#endif
  const auto listener = Listen(UnixAddress());
  ASSERT_TRUE(listener.ok());
  const auto connector = Connector::Connect(loop_, UnixAddress(),
                                            [this](absl::StatusOr<std::unique_ptr<ByteStream>> s) {
                                              ASSERT_TRUE(s.ok()) << s.status();
                                              client_.Start(*std::move(s));
                                            });
  int steps = 0;
  Timer timer(loop_);
  bool tried = false;
  timer.Start(absl::Milliseconds(20), [&] { tried = true; });

  {
    const NoDescriptors none;
    RunUntil([&] { return ++steps, tried; });
  }
  EXPECT_FALSE(server_.connected());
  EXPECT_LT(steps, 20) << "the loop spins";

  RunUntil([&] { return server_.connected(); });
}

}  // namespace
}  // namespace varnic::net
