#ifndef CORE_HOST_BROWSER_LOGIN_ATTEMPTS_H_
#define CORE_HOST_BROWSER_LOGIN_ATTEMPTS_H_

#include <cstddef>
#include <deque>
#include <map>
#include <string>
#include <utility>

namespace varnic::host {

// Counts how often a request was asked for credentials, by the server and by the proxy. A browser
// says when it asks, but not when it has got in, so that the oldest requests are forgotten, when
// there are more than so many. One thread only.
class LoginAttempts {
 public:
  explicit LoginAttempts(size_t max_requests = 1000) : max_requests_(max_requests) {}

  // Counts one more: 1 for the first.
  int Count(const std::string& request_id, bool is_proxy) {
    const auto [it, is_new] = counts_.try_emplace({request_id, is_proxy}, 0);
    if (is_new) order_.push_back(it);
    const int count = ++it->second;
    if (order_.size() > max_requests_) {
      counts_.erase(order_.front());
      order_.pop_front();
    }
    return count;
  }

  size_t size() const { return counts_.size(); }

 private:
  using Counts = std::map<std::pair<std::string, bool>, int>;

  const size_t max_requests_;
  Counts counts_;
  std::deque<Counts::iterator> order_;  // The oldest first.
};

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_LOGIN_ATTEMPTS_H_
