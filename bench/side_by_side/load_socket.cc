#include "bench/side_by_side/load_socket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "bench/side_by_side/measurement.h"

namespace varnic::bench {
namespace {

constexpr int kPatienceMs = 10'000;

int Connect(int family, const void* address, socklen_t size) {
  const int fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) Fail(std::string("no socket: ") + std::strerror(errno));
  if (connect(fd, static_cast<const sockaddr*>(address), size) == 0) return fd;
  close(fd);
  return -1;
}

bool IsFile(const std::string& address) {
  return address.rfind("unix:", 0) == 0;
}
std::string PathOf(const std::string& address) {
  return address.substr(5);
}

int ConnectToFile(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) Fail("the socket's path is too long: " + path);
  path.copy(address.sun_path, path.size());
  return Connect(AF_UNIX, &address, sizeof(address));
}

int ConnectToPort(const std::string& host, int port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  if (inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1) Fail("not an address: " + host);
  const int fd = Connect(AF_INET, &address, sizeof(address));
  const int on = 1;
  if (fd >= 0) setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  return fd;
}

// One that a killed server has left behind.
void RemoveSocketFile(const std::string& address) {
  if (IsFile(address)) unlink(PathOf(address).c_str());
}

int ConnectOrFail(const std::string& address) {
  const int fd = TryToConnect(address);
  if (fd < 0) Fail("cannot connect to " + address + ": " + std::strerror(errno));
  return fd;
}

}  // namespace

int TryToConnect(const std::string& address) {
  if (IsFile(address)) return ConnectToFile(PathOf(address));
  const std::size_t colon = address.rfind(':');
  if (colon == std::string::npos) Fail("not an address: " + address);
  return ConnectToPort(address.substr(0, colon), std::atoi(address.c_str() + colon + 1));
}

LoadSocket::LoadSocket(const std::string& address) : LoadSocket(ConnectOrFail(address)) {}
LoadSocket::LoadSocket(int fd) : fd_(fd) {
  if (fcntl(fd_, F_SETFL, O_NONBLOCK) != 0) Fail("cannot make a socket non-blocking");
}
LoadSocket::~LoadSocket() {
  close(fd_);
}

void LoadSocket::Write(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (written >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(written));
      continue;
    }
    if (errno != EAGAIN) Fail(std::string("cannot write: ") + std::strerror(errno));
    pollfd room{fd_, POLLOUT, 0};
    if (poll(&room, 1, kPatienceMs) == 0) Fail("the server does not read");
  }
}

std::string_view LoadSocket::Read() {
  static std::array<char, 64 << 10> buffer;
  const ssize_t size = recv(fd_, buffer.data(), buffer.size(), 0);
  if (size == 0) Fail("the server has closed the connection");
  if (size > 0) return {buffer.data(), static_cast<std::size_t>(size)};
  if (errno != EAGAIN) Fail(std::string("cannot read: ") + std::strerror(errno));
  return {};
}

SocketWatch::SocketWatch() : epoll_(epoll_create1(EPOLL_CLOEXEC)) {}
SocketWatch::~SocketWatch() {
  close(epoll_);
}

void SocketWatch::Add(const LoadSocket& socket, std::function<void()> on_readable) {
  watched_.push_back(std::make_unique<std::function<void()>>(std::move(on_readable)));
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.ptr = watched_.back().get();
  if (epoll_ctl(epoll_, EPOLL_CTL_ADD, socket.fd(), &event) != 0) Fail("cannot watch a socket");
}

void SocketWatch::RunOnce() {
  std::array<epoll_event, 256> events;
  const int count = epoll_wait(epoll_, events.data(), events.size(), kPatienceMs);
  if (count == 0) Fail("nothing has come from the server for ten seconds");
  for (int i = 0; i < count; ++i) {
    (*static_cast<std::function<void()>*>(events[static_cast<std::size_t>(i)].data.ptr))();
  }
}

StartedServer::StartedServer(const std::vector<std::string>& command, int cpu) {
  std::vector<char*> arguments;
  for (const std::string& argument : command) {
    arguments.push_back(const_cast<char*>(argument.c_str()));
  }
  arguments.push_back(nullptr);
  process_ = fork();
  if (process_ < 0) Fail("cannot fork");
  if (process_ > 0) return;
  if (cpu >= 0) {
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    CPU_SET(cpu, &cpus);
    sched_setaffinity(0, sizeof(cpus), &cpus);
  }
  // What the server prints is not for whoever reads this program's output.
  const int nowhere = open("/dev/null", O_WRONLY);
  if (nowhere >= 0) dup2(nowhere, STDOUT_FILENO);
  execv(arguments[0], arguments.data());
  _exit(127);
}

StartedServer::~StartedServer() {
  kill(process_, SIGKILL);
  waitpid(process_, nullptr, 0);
}

void MeasureStart(const LoadOptions& options, const std::function<void(int fd)>& call_once) {
  Measurement measurement(0);
  measurement.Begin();
  const std::int64_t began = NowNs();
  do {
    RemoveSocketFile(options.address);
    const std::int64_t start = NowNs();
    const StartedServer server(options.server_command, options.server_cpu);
    int fd = -1;
    while ((fd = TryToConnect(options.address)) < 0) {
      if (NowNs() - start > kPatienceMs * std::int64_t{1'000'000})
        Fail("the server does not listen");
      usleep(100);
    }
    call_once(fd);
    measurement.Count(NowNs() - start);
  } while (static_cast<double>(NowNs() - began) < options.seconds * 1e9);
  measurement.End();
  measurement.NoteLatencies();
  measurement.Print();
}

}  // namespace varnic::bench
