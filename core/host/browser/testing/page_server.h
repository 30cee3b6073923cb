#ifndef CORE_HOST_BROWSER_TESTING_PAGE_SERVER_H_
#define CORE_HOST_BROWSER_TESTING_PAGE_SERVER_H_

#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace varnic::host::testing {

// A web server for a browser under test: serves fixed pages on the loopback interface, and keeps
// what it was asked. Every request is answered on a connection of its own.
class PageServer {
 public:
  using Headers = std::map<std::string, std::string>;  // By names in lower case.

  // The pages by their paths; those that end in ".js" are scripts, and an unknown one is empty.
  // Those below "/login" are for "ann" with the password "secret"; others get 401, and the text
  // "denied".
  explicit PageServer(std::map<std::string, std::string> pages);
  PageServer(const PageServer&) = delete;
  PageServer& operator=(const PageServer&) = delete;
  ~PageServer();

  // Two names of one server: different sites, whose pages get processes of their own.
  std::string Url(const std::string& path) const { return UrlAt("127.0.0.1", path); }
  std::string OtherUrl(const std::string& path) const { return UrlAt("localhost", path); }

  // The headers of the first request for a path; empty if there was none.
  Headers Request(const std::string& path) const;
  bool WasAsked(const std::string& path) const;

 private:
  struct Connection {
    int fd;
    std::string received;
  };

  std::string UrlAt(const char* host, const std::string& path) const;
  void Run();
  void Accept();
  // False if it is done.
  bool Read(Connection& connection);
  std::string Answer(const std::string& head);

  const std::map<std::string, std::string> pages_;
  int listener_ = -1;
  int port_ = 0;
  int stop_[2] = {-1, -1};
  std::vector<Connection> connections_;  // The thread's.
  mutable std::mutex mutex_;
  std::map<std::string, Headers> requests_;  // Guarded by mutex_.
  std::thread thread_;
};

}  // namespace varnic::host::testing

#endif  // CORE_HOST_BROWSER_TESTING_PAGE_SERVER_H_
