#ifndef CORE_HOST_BROWSER_PAGE_LANGUAGES_H_
#define CORE_HOST_BROWSER_PAGE_LANGUAGES_H_

#include <map>
#include <string>
#include <vector>

#include "absl/status/status.h"
#include "core/host/browser/devtools_pipe.h"
#include "core/host/browser/target_sessions.h"
#include "core/host/profiles.h"
#include "core/net/lifetime.h"

namespace varnic::host {

// Asks pages for the languages that they see, past what their own scripts may have put there.
//
// Lives on the loop's thread; the pipe outlives it. Replies run from the loop, in FailAll(), or
// before the call returns.
class PageLanguages {
 public:
  explicit PageLanguages(DevToolsPipe& devtools) : devtools_(devtools) {}
  PageLanguages(const PageLanguages&) = delete;
  PageLanguages& operator=(const PageLanguages&) = delete;

  // A list with commas, from the first of `pages` that answers. Three are asked at most, and each
  // question of the two to a page may take five seconds, for it can be busy. UNAVAILABLE if none
  // answers.
  void Ask(std::vector<TargetSession> pages, Reply<std::string> reply);
  // Ends what is open; unless this is called, it is dropped.
  void FailAll(const absl::Status& why);

 private:
  struct Inquiry {
    std::vector<TargetSession> pages;  // That are still to be asked.
    Reply<std::string> reply;
  };

  void AskNext(int number);
  void OnWorld(int number, const std::string& session_id,
               const absl::StatusOr<nlohmann::json>& answer);
  void OnLanguages(int number, const absl::StatusOr<nlohmann::json>& answer);
  void Finish(int number, const absl::StatusOr<std::string>& list);

  DevToolsPipe& devtools_;
  int last_number_ = 0;
  std::map<int, Inquiry> inquiries_;
  net::Lifetime lifetime_;
};

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_PAGE_LANGUAGES_H_
