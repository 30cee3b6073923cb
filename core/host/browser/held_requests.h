#ifndef CORE_HOST_BROWSER_HELD_REQUESTS_H_
#define CORE_HOST_BROWSER_HELD_REQUESTS_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "absl/status/status.h"
#include "absl/time/time.h"
#include "core/common/rpc/scheduler.h"
#include "core/host/browser/devtools_pipe.h"
#include "core/host/question_asker.h"
#include "core/net/lifetime.h"

namespace varnic::host {

struct HeldRequest {
  std::string request_id;
  std::string frame_id;
  // Answers the browser when nobody else will: the frame is gone, it took too long, the table goes.
  // Must not come back to the table.
  std::function<void()> give_up;
};

struct HeldRequestOptions {
  // How long a request may be held on the whole.
  absl::Duration time = absl::Seconds(40);
  // How often to look whether the requests that are held are still there.
  absl::Duration check_time = absl::Seconds(1);
  // Beyond so many, none is held.
  size_t max_requests = 1000;
};

// The requests of a browser that are held while somebody is asked about them. Sees to it that none
// is held for ever, and that the questions about those that are gone are withdrawn.
//
// No event of the browser says that a paused request is gone: a page that gives one up, a window
// that is closed. So the browser is asked for the body of the answer, which a request that was not
// sent cannot have, and which it refuses in another way than for a request that it does not know.
// That is done at intervals, and at once where something has happened to the frame.
//
// Lives on the pipe's thread; what it is given outlives it. Destroying it gives everything up.
class HeldRequests {
 public:
  using Ticket = uint64_t;

  HeldRequests(DevToolsPipe& devtools, QuestionAsker& asker, const HeldRequestOptions& options);
  HeldRequests(const HeldRequests&) = delete;
  HeldRequests& operator=(const HeldRequests&) = delete;
  ~HeldRequests();

  // A ticket, or 0 if too many are held: the caller answers at once.
  Ticket Hold(HeldRequest request);
  bool IsHeld(Ticket ticket) const { return requests_.count(ticket) != 0; }
  // Which question a request waits for.
  void SetQuestion(Ticket ticket, QuestionAsker::Id question);
  // Ends the holding; whoever gets true answers the browser.
  bool Release(Ticket ticket);

  // These frames are gone, and what they asked for.
  void OnFramesGone(const std::vector<std::string>& frame_ids);
  // What the frame asked for may be gone.
  void Check(const std::string& frame_id);

  size_t size() const { return requests_.size(); }

 private:
  struct Entry {
    HeldRequest request;
    QuestionAsker::Id question = 0;  // None yet.
    bool is_checked = false;         // The browser has not said yet.
    std::unique_ptr<Scheduler::Timer> timer;
  };

  void GiveUp(Ticket ticket);
  void CheckOne(Ticket ticket, Entry& entry);
  void OnChecked(Ticket ticket, const absl::Status& status);
  void CheckLater();
  // The request is gone, and nobody needs an answer.
  void Forget(Ticket ticket);

  DevToolsPipe& devtools_;
  QuestionAsker& asker_;
  const HeldRequestOptions options_;
  Ticket last_ticket_ = 0;
  std::map<Ticket, Entry> requests_;
  std::unique_ptr<Scheduler::Timer> check_timer_;  // While something is held.
  net::Lifetime lifetime_;
};

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_HELD_REQUESTS_H_
