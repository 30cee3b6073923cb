#ifndef BENCH_SIDE_BY_SIDE_LOAD_SOCKET_H_
#define BENCH_SIDE_BY_SIDE_LOAD_SOCKET_H_

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "bench/side_by_side/load_options.h"

namespace varnic::bench {

// A connected socket that does not block. Whatever goes wrong ends the program: a measurement with
// failures is none.
class LoadSocket {
 public:
  explicit LoadSocket(const std::string& address);
  // Takes over `fd`.
  explicit LoadSocket(int fd);
  LoadSocket(const LoadSocket&) = delete;
  LoadSocket& operator=(const LoadSocket&) = delete;
  ~LoadSocket();

  int fd() const { return fd_; }
  // All of it, waiting for room if there is none.
  void Write(std::string_view bytes);
  // What is there now, at most 64 KiB, valid until the next Read() of any socket; empty if there is
  // nothing.
  std::string_view Read();

 private:
  int fd_;
};

// Negative if nobody listens there (yet).
int TryToConnect(const std::string& address);

// Waits for many sockets at once.
class SocketWatch {
 public:
  SocketWatch();
  SocketWatch(const SocketWatch&) = delete;
  SocketWatch& operator=(const SocketWatch&) = delete;
  ~SocketWatch();

  // `on_readable` is called while there is something to read; the socket outlives the watch.
  void Add(const LoadSocket& socket, std::function<void()> on_readable);
  // Waits and calls until `done()`, which is asked after every wait. Ends the program if nothing
  // comes for ten seconds.
  template <class Done>
  void RunUntil(const Done& done) {
    while (!done()) RunOnce();
  }

 private:
  void RunOnce();

  const int epoll_;
  std::vector<std::unique_ptr<std::function<void()>>> watched_;
};

// Starts the server of `options.server_command` again and again, for `options.seconds`, and
// measures the time until `call_once(fd)` has made its first call over a new connection.
void MeasureStart(const LoadOptions& options, const std::function<void(int fd)>& call_once);

// Starts and ends one server process.
class StartedServer {
 public:
  StartedServer(const std::vector<std::string>& command, int cpu);
  StartedServer(const StartedServer&) = delete;
  StartedServer& operator=(const StartedServer&) = delete;
  ~StartedServer();

 private:
  pid_t process_;
};

}  // namespace varnic::bench

#endif  // BENCH_SIDE_BY_SIDE_LOAD_SOCKET_H_
