#include "core/host/browser/testing/page_server.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "absl/strings/ascii.h"
#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_split.h"
#include "core/common/rpc/fatal.h"

namespace varnic::host::testing {

PageServer::PageServer(std::map<std::string, std::string> pages) : pages_(std::move(pages)) {
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  auto* const any = reinterpret_cast<sockaddr*>(&address);
  VARNIC_CHECK(::bind(listener_, any, size) == 0);
  VARNIC_CHECK(::listen(listener_, 64) == 0);
  VARNIC_CHECK(::getsockname(listener_, any, &size) == 0);
  VARNIC_CHECK(::pipe2(stop_, O_CLOEXEC) == 0);
  port_ = ntohs(address.sin_port);
  thread_ = std::thread([this] { Run(); });
}

PageServer::~PageServer() {
  ::close(stop_[1]);
  thread_.join();
  ::close(stop_[0]);
  ::close(listener_);
  for (const Connection& connection : connections_) ::close(connection.fd);
}

std::string PageServer::UrlAt(const char* host, const std::string& path) const {
  return absl::StrCat("http://", host, ":", port_, path);
}

void PageServer::Run() {
  while (true) {
    std::vector<pollfd> fds = {{stop_[0], POLLIN, 0}, {listener_, POLLIN, 0}};
    for (const Connection& connection : connections_) fds.push_back({connection.fd, POLLIN, 0});
    if (::poll(fds.data(), fds.size(), -1) < 0) continue;
    if (fds[0].revents != 0) return;
    std::vector<Connection> connections;
    for (size_t i = 0; i < connections_.size(); ++i) {
      Connection& connection = connections_[i];
      if (fds[i + 2].revents != 0 && !Read(connection)) {
        ::close(connection.fd);
      } else {
        connections.push_back(std::move(connection));
      }
    }
    connections_ = std::move(connections);
    if (fds[1].revents != 0) Accept();
  }
}

void PageServer::Accept() {
  const int fd = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd >= 0) connections_.push_back({fd, ""});
}

bool PageServer::Read(Connection& connection) {
  char buffer[4096];
  const ssize_t size = ::recv(connection.fd, buffer, sizeof(buffer), 0);
  if (size <= 0) return false;
  connection.received.append(buffer, static_cast<size_t>(size));
  const size_t end = connection.received.find("\r\n\r\n");
  if (end == std::string::npos) return true;
  const std::string answer = Answer(connection.received.substr(0, end));
  ::send(connection.fd, answer.data(), answer.size(), MSG_NOSIGNAL);
  return false;
}

std::string PageServer::Answer(const std::string& head) {
  const std::vector<std::string> lines = absl::StrSplit(head, "\r\n");
  const std::vector<std::string> words = absl::StrSplit(lines[0], ' ');
  const std::string path = words.size() > 1 ? words[1] : "";
  Headers headers;
  for (const std::string& line : lines) {
    const std::pair<std::string, std::string> field =
        absl::StrSplit(line, absl::MaxSplits(": ", 1));
    headers[absl::AsciiStrToLower(field.first)] = field.second;
  }
  if (absl::StartsWith(path, "/login") && headers["authorization"] != "Basic YW5uOnNlY3JldA==") {
    return "HTTP/1.1 401 Unauthorized\r\nWWW-Authenticate: Basic realm=\"R\"\r\n"
           "Content-Type: text/html\r\nContent-Length: 6\r\nConnection: close\r\n\r\ndenied";
  }
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    requests_.emplace(path, std::move(headers));
  }
  const auto page = pages_.find(path);
  const std::string body = page == pages_.end() ? "" : page->second;
  const char* const type = absl::EndsWith(path, ".js") ? "text/javascript" : "text/html";
  return absl::StrCat("HTTP/1.1 200 OK\r\nContent-Type: ", type,
                      "\r\nContent-Length: ", body.size(), "\r\nConnection: close\r\n\r\n", body);
}

PageServer::Headers PageServer::Request(const std::string& path) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto it = requests_.find(path);
  return it == requests_.end() ? Headers() : it->second;
}

bool PageServer::WasAsked(const std::string& path) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return requests_.count(path) != 0;
}

}  // namespace varnic::host::testing
