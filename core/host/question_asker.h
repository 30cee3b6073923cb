#ifndef CORE_HOST_QUESTION_ASKER_H_
#define CORE_HOST_QUESTION_ASKER_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "absl/status/status.h"
#include "absl/time/time.h"
#include "core/common/rpc/scheduler.h"
#include "rpc/identifiers.pb.h"
#include "rpc/profile/profile.pb.h"

namespace varnic::host {

struct QuestionOptions {
  // How long a client may take to answer.
  absl::Duration time = absl::Seconds(30);
  // What holds for a file about which nobody decides.
  bool allow_files = false;
  // How often one request is asked for credentials before it goes on without; at least 1.
  int login_attempts = 3;
  // Questions that wait for their answers, of all profiles; and of one, so that none keeps others
  // from asking.
  size_t open_questions = 1000;
  size_t open_questions_of_profile = 250;
};

// Asks the clients of OnCanAccessFile and OnAuthenticate on behalf of browsers, and always has an
// answer. Where no client gives one, it is the default: files as the options say, logins are
// cancelled. That is when nobody is subscribed under any of the keys (at once), when the one who is
// reports an error, is too slow or goes away, and when too many questions are open.
//
// Made before the first stream opens; see CallbackCaller. `scheduler` outlives it. Destroying it
// tells the clients that its questions are withdrawn, and runs no callback. RPC thread only.
class QuestionAsker {
 public:
  // Names a question of this asker. Never 0.
  using Id = uint64_t;
  using OnFile = std::function<void(bool allow)>;
  using OnLogin = std::function<void(const rpc::Authenticate::Response& response)>;

  QuestionAsker(Scheduler& scheduler, QuestionOptions options);
  QuestionAsker(const QuestionAsker&) = delete;
  QuestionAsker& operator=(const QuestionAsker&) = delete;
  ~QuestionAsker();

  // Asks who is subscribed under the first of `keys`, or else under the next one; the first is that
  // of the profile whose question it is. The callback runs once, never inside the call, and not
  // after Withdraw(). It may do anything with the asker but destroy it.
  Id AskFile(const std::vector<ProfileId>& keys, const rpc::CanAccessFile::Request& request,
             OnFile on_answer);
  Id AskLogin(const std::vector<ProfileId>& keys, const rpc::Authenticate::Request& request,
              OnLogin on_answer);
  // Tells the client that nobody waits for the answer any more. Nothing if it has been given.
  void Withdraw(Id id);

  const QuestionOptions& options() const { return options_; }
  Scheduler& scheduler() const { return scheduler_; }
  size_t open_questions() const;
  // Those that got the default because too many were open.
  uint64_t questions_over_limit() const { return questions_over_limit_; }

 private:
  template <class T>
  class Desk;

  template <class T>
  Id Ask(Desk<T>& desk, const std::vector<ProfileId>& keys, const typename T::Request& request,
         std::function<void(const typename T::Response&)> on_answer);
  // Why one more cannot be open for `profile`; OK if it can.
  absl::Status CheckRoom(const ProfileId& profile) const;

  Scheduler& scheduler_;
  const QuestionOptions options_;
  Id last_id_ = 0;
  uint64_t questions_over_limit_ = 0;
  std::unique_ptr<Desk<rpc::CanAccessFile>> files_;
  std::unique_ptr<Desk<rpc::Authenticate>> logins_;
};

}  // namespace varnic::host

#endif  // CORE_HOST_QUESTION_ASKER_H_
