// What the machine can do at best: sends back whatever comes, one read and one write for each
// wake-up, and knows nothing of messages. A connection that sends "S" first subscribes; one that
// sends "P" makes it send an event to each of these.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>

#include "bench/side_by_side/scenario.h"

namespace varnic::bench {
namespace {

class EchoServer {
 public:
  // Negative if it cannot.
  int Listen(const std::string& address);
  [[noreturn]] void Run();

 private:
  int ListenOnFile(const std::string& path);
  int ListenOnPort(const std::string& host);
  void Watch(int fd);
  void Accept();
  void OnReadable(int fd);
  void Publish();
  // Waits for room where there is none, as the sockets block.
  static void Write(int fd, const char* bytes, std::size_t size);

  const int epoll_ = epoll_create1(0);
  int listener_ = -1;
  std::set<int> subscribers_;
};

int EchoServer::Listen(const std::string& address) {
  const bool is_file = address.rfind("unix:", 0) == 0;
  const int result = is_file ? ListenOnFile(address.substr(5))
                             : ListenOnPort(address.substr(0, address.rfind(':')));
  if (result == 0) Watch(listener_);
  return result;
}

int EchoServer::ListenOnFile(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof(address.sun_path)) return -1;
  path.copy(address.sun_path, path.size());
  unlink(path.c_str());
  listener_ = socket(AF_UNIX, SOCK_STREAM, 0);
  if (bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) return -1;
  std::printf("unix:%s\n", path.c_str());
  return listen(listener_, SOMAXCONN);
}

int EchoServer::ListenOnPort(const std::string& host) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  socklen_t size = sizeof(address);
  if (inet_pton(AF_INET, host.c_str(), &address.sin_addr) != 1) return -1;
  listener_ = socket(AF_INET, SOCK_STREAM, 0);
  if (bind(listener_, reinterpret_cast<sockaddr*>(&address), size) != 0) return -1;
  getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size);
  std::printf("%s:%d\n", host.c_str(), ntohs(address.sin_port));
  return listen(listener_, SOMAXCONN);
}

void EchoServer::Watch(int fd) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = fd;
  epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event);
}

void EchoServer::Accept() {
  const int fd = accept(listener_, nullptr, nullptr);
  if (fd < 0) return;
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  Watch(fd);
}

void EchoServer::OnReadable(int fd) {
  static std::array<char, 64 << 10> buffer;
  const ssize_t size = read(fd, buffer.data(), buffer.size());
  if (size <= 0) {
    subscribers_.erase(fd);
    close(fd);
    return;
  }
  if (buffer[0] == 'S') subscribers_.insert(fd);
  if (buffer[0] == 'P') Publish();
  Write(fd, buffer.data(), static_cast<std::size_t>(size));
}

void EchoServer::Publish() {
  const std::string event(kMessageBytes, 'e');
  for (const int fd : subscribers_) Write(fd, event.data(), event.size());
}

void EchoServer::Write(int fd, const char* bytes, std::size_t size) {
  while (size > 0) {
    const ssize_t written = send(fd, bytes, size, MSG_NOSIGNAL);
    if (written <= 0) return;
    bytes += written;
    size -= static_cast<std::size_t>(written);
  }
}

void EchoServer::Run() {
  std::array<epoll_event, 256> events;
  while (true) {
    const int count = epoll_wait(epoll_, events.data(), events.size(), -1);
    for (int i = 0; i < count; ++i) {
      const int fd = events[static_cast<std::size_t>(i)].data.fd;
      if (fd == listener_) {
        Accept();
      } else {
        OnReadable(fd);
      }
    }
  }
}

}  // namespace
}  // namespace varnic::bench

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  varnic::bench::EchoServer server;
  if (server.Listen(argv[1]) != 0) {
    std::perror(argv[1]);
    return 1;
  }
  std::fflush(stdout);
  server.Run();
}
