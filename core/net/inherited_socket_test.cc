#include "core/net/inherited_socket.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "core/net/socket_stream.h"
#include "core/net/testing/test_certificates.h"
#include "core/net/tls_socket.h"

namespace varnic::net {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;

// A file descriptor that is closed unless somebody takes it over.
class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) { EXPECT_GE(fd, 0); }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() {
    if (fd_ >= 0) close(fd_);
  }
  int get() const { return fd_; }
  int Release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

// What a service manager does before it starts a process.
template <class SocketAddress>
void BindTo(int fd, const SocketAddress& address, std::size_t size = sizeof(SocketAddress)) {
  ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), static_cast<socklen_t>(size)), 0);
}

void ListenOnPath(int fd, const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path));
  BindTo(fd, address, offsetof(sockaddr_un, sun_path) + path.size());
  ASSERT_EQ(listen(fd, 8), 0);
}

void ListenOnLoopback(int fd, in_addr_t address = INADDR_LOOPBACK) {
  sockaddr_in loopback = {};
  loopback.sin_family = AF_INET;
  loopback.sin_addr.s_addr = htonl(address);
  BindTo(fd, loopback);
  ASSERT_EQ(listen(fd, 8), 0);
}

std::string Problem(int fd) {
  const auto address = InheritedAddress(fd);
  EXPECT_EQ(address.status().code(), absl::StatusCode::kFailedPrecondition);
  return std::string(address.status().message());
}

class InheritedSocketTest : public ::testing::Test {
 protected:
  absl::StatusOr<std::unique_ptr<Listener>> Adopt(int fd, const ListenerOptions& options = {}) {
    return Listener::Adopt(
        loop_, fd,
        [this](std::unique_ptr<ByteStream> stream) { accepted_.push_back(std::move(stream)); },
        options);
  }

  testing::TestFolder folder_;
  const std::string path_ = folder_.Path("host.sock");
  EventLoop loop_;
  std::vector<std::unique_ptr<ByteStream>> accepted_;
  std::vector<std::unique_ptr<ByteStream>> connected_;
};

TEST_F(InheritedSocketTest, AddressIsThatOfTheSocket) {
  const Fd local(socket(AF_UNIX, SOCK_STREAM, 0));
  ListenOnPath(local.get(), path_);
  const Fd tcp(socket(AF_INET, SOCK_STREAM, 0));
  ListenOnLoopback(tcp.get());
  const Fd ipv6(socket(AF_INET6, SOCK_STREAM, 0));
  sockaddr_in6 any = {};
  any.sin6_family = AF_INET6;
  BindTo(ipv6.get(), any);
  ASSERT_EQ(listen(ipv6.get(), 8), 0);

  EXPECT_EQ(InheritedAddress(local.get())->ToString(), "unix://" + path_);
  EXPECT_EQ(InheritedAddress(tcp.get())->host, "127.0.0.1");
  EXPECT_NE(InheritedAddress(tcp.get())->port, 0);
  EXPECT_EQ(InheritedAddress(ipv6.get())->host, "::");
}

TEST_F(InheritedSocketTest, PathThatFillsItsFieldIsReadWhole) {
  const std::string path = folder_.Path("x") + "/" + std::string(200, 'y');
  mkdir(folder_.Path("x").c_str(), 0700);
  const Fd fd(socket(AF_UNIX, SOCK_STREAM, 0));
  ListenOnPath(fd.get(), path.substr(0, sizeof(sockaddr_un::sun_path)));

  EXPECT_EQ(InheritedAddress(fd.get())->path.size(), sizeof(sockaddr_un::sun_path));
}

TEST_F(InheritedSocketTest, WhatCannotBeListenedOnIsNamed) {
  const Fd file(open("/dev/null", O_RDONLY));
  const Fd datagrams(socket(AF_UNIX, SOCK_DGRAM, 0));
  const Fd silent(socket(AF_INET, SOCK_STREAM, 0));
  const Fd abstract(socket(AF_UNIX, SOCK_STREAM, 0));
  ListenOnPath(abstract.get(), std::string("\0varnic-", 8) + path_);

  EXPECT_EQ(Problem(1 << 20), "file descriptor 1048576 is not open");
  EXPECT_THAT(Problem(file.get()),
              AllOf(HasSubstr(std::to_string(file.get())), HasSubstr("is not a socket")));
  EXPECT_THAT(Problem(datagrams.get()), HasSubstr("is not a stream socket"));
  EXPECT_THAT(Problem(silent.get()), HasSubstr("does not listen"));
  EXPECT_THAT(Problem(abstract.get()), HasSubstr("without a file"));
}

TEST_F(InheritedSocketTest, ConnectionThatWaitsAlreadyIsAccepted) {
  Fd fd(socket(AF_UNIX, SOCK_STREAM, 0));
  ListenOnPath(fd.get(), path_);
  const auto connector =
      Connector::Connect(loop_, *Address::Parse("unix:" + path_),
                         [this](absl::StatusOr<std::unique_ptr<ByteStream>> stream) {
                           ASSERT_TRUE(stream.ok()) << stream.status();
                           connected_.push_back(*std::move(stream));
                         });
  loop_.RunUntil([&] { return !connected_.empty(); });

  const auto listener = Adopt(fd.get());
  ASSERT_TRUE(listener.ok()) << listener.status();
  fd.Release();

  loop_.RunUntil([&] { return !accepted_.empty(); });
  EXPECT_EQ(accepted_[0]->peer().uid, geteuid());
}

TEST_F(InheritedSocketTest, FileKeepsItsModeAndOutlivesTheListener) {
  Fd fd(socket(AF_UNIX, SOCK_STREAM, 0));
  ListenOnPath(fd.get(), path_);
  chmod(path_.c_str(), 0620);

  {
    const auto listener = Adopt(fd.get());
    ASSERT_TRUE(listener.ok()) << listener.status();
    EXPECT_EQ(fcntl(fd.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    fd.Release();
  }

  struct stat info;
  ASSERT_EQ(stat(path_.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0620u);
}

TEST_F(InheritedSocketTest, WhoMayNotConnectIsRefused) {
  Fd fd(socket(AF_UNIX, SOCK_STREAM, 0));
  ListenOnPath(fd.get(), path_);
  ListenerOptions options;
  options.unix_admission.users = {geteuid() + 1};
  const auto listener = Adopt(fd.get(), options);
  ASSERT_TRUE(listener.ok()) << listener.status();
  fd.Release();

  const auto connector = Connector::Connect(loop_, *Address::Parse("unix:" + path_),
                                            [](absl::StatusOr<std::unique_ptr<ByteStream>>) {});
  loop_.RunUntil([&] { return (*listener)->refused() != 0; });

  EXPECT_TRUE(accepted_.empty());
}

TEST_F(InheritedSocketTest, PlainTcpIsServedOnLoopbackOnly) {
  Fd loopback(socket(AF_INET, SOCK_STREAM, 0));
  ListenOnLoopback(loopback.get());
  const Fd any(socket(AF_INET, SOCK_STREAM, 0));
  ListenOnLoopback(any.get(), INADDR_ANY);

  const auto listener = Adopt(loopback.get());
  const auto refused = Adopt(any.get());

  ASSERT_TRUE(listener.ok()) << listener.status();
  EXPECT_EQ((*listener)->address(), *InheritedAddress(loopback.Release()));
  EXPECT_THAT(std::string(refused.status().message()),
              AllOf(HasSubstr("cannot listen on 0.0.0.0:"), HasSubstr("loopback")));
}

TEST_F(InheritedSocketTest, TlsIsForTcp) {
  const Fd fd(socket(AF_UNIX, SOCK_STREAM, 0));
  ListenOnPath(fd.get(), path_);

  const auto listener = AdoptTls(loop_, fd.get(), {}, [](std::unique_ptr<ByteStream>) {});

  EXPECT_THAT(std::string(listener.status().message()), HasSubstr("TLS is for TCP"));
}

}  // namespace
}  // namespace varnic::net
