#include "core/host/question_asker.h"

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "base/logging.h"
#include "core/common/rpc/fatal.h"
#include "core/common/rpc/stream/callback_caller.h"
#include "core/net/lifetime.h"
#include "core/net/log_field.h"
#include "core/net/log_limiter.h"

namespace varnic::host {
namespace {

// What a record says of a question; never a query, which may hold secrets.
std::string Describe(const rpc::CanAccessFile::Request& request) {
  return net::LogField("access", rpc::CanAccessFile::Access_Name(request.access())) +
         net::LogField("path", request.path()) + net::LogField("origin", request.origin());
}
std::string Describe(const rpc::Authenticate::Request& request) {
  return net::LogField("challenger", request.challenger_host()) +
         net::LogField("scheme", request.scheme()) + net::LogField("realm", request.realm());
}

const ProfileId& ProfileOf(const std::vector<ProfileId>& keys) {
  return keys.empty() ? ProfileId::default_instance() : keys.front();
}

}  // namespace

// The questions of one kind.
template <class T>
class QuestionAsker::Desk {
 public:
  using Request = typename T::Request;
  using Response = typename T::Response;
  using OnAnswer = std::function<void(const Response&)>;

  Desk(Scheduler& scheduler, const QuestionOptions& options, Response default_answer)
      : scheduler_(scheduler),
        time_(options.time),
        default_answer_(std::move(default_answer)),
        caller_(scheduler, {options.open_questions}) {}
  Desk(const Desk&) = delete;
  Desk& operator=(const Desk&) = delete;
  ~Desk() { questions_.clear(); }  // The caller's last callbacks find nothing.

  size_t size() const { return questions_.size(); }
  size_t CountOf(const ProfileId& profile) const {
    return static_cast<size_t>(std::count_if(
        questions_.begin(), questions_.end(),
        [&profile](const auto& question) { return question.second.profile == profile.value(); }));
  }

  void Ask(Id id, const std::vector<ProfileId>& keys, const Request& request, OnAnswer on_answer) {
    questions_[id] = {ProfileOf(keys).value(), keys, request, std::move(on_answer), 0};
    AskNext(id, absl::NotFoundError("nobody is there to answer"));
  }

  // The default, for a question that is not asked.
  void AnswerUnasked(Id id, const Request& request, OnAnswer on_answer, const absl::Status& why) {
    questions_[id] = {"", {}, request, std::move(on_answer), 0};
    AskNext(id, why);
  }

  bool Withdraw(Id id) {
    const auto question = questions_.extract(id);
    if (question.empty()) return false;
    if (question.mapped().call != 0) caller_.Withdraw(question.mapped().call);
    return true;
  }

 private:
  struct Question {
    std::string profile;
    std::vector<ProfileId> keys;  // That have not been tried, in their order.
    Request request;
    OnAnswer on_answer;
    CallId call = 0;
  };

  // Asks under the next key, or has the default answer, later, because of `why`.
  void AskNext(Id id, const absl::Status& why) {
    const auto it = questions_.find(id);
    if (it == questions_.end()) return;
    Question& question = it->second;
    question.call = 0;
    if (question.keys.empty()) {
      return scheduler_.Post(lifetime_.Guard([this, id, why] { Default(id, why); }));
    }
    const ProfileId key = std::move(question.keys.front());
    question.keys.erase(question.keys.begin());
    const CallId call = caller_.Call(
        key, question.request, [this, id](const Response& response) { Answer(id, response); },
        [this, id](const absl::Status& status) { OnError(id, status); }, time_);
    if (const auto asked = questions_.find(id); asked != questions_.end()) {
      asked->second.call = call;
    }
  }

  void OnError(Id id, const absl::Status& why) {
    if (absl::IsNotFound(why)) return AskNext(id, why);
    Default(id, why);
  }

  void Default(Id id, const absl::Status& why) {
    const auto it = questions_.find(id);
    if (it == questions_.end()) return;
    LogDefault(it->second.request, why);
    End(id, default_answer_);
  }

  void Answer(Id id, const Response& response) {
    if (questions_.count(id) == 0) return;
    LogAnswer(questions_[id].request);
    End(id, response);
  }

  void End(Id id, const Response& response) {
    const auto question = questions_.extract(id);
    question.mapped().on_answer(response);
  }

  void LogDefault(const Request& request, const absl::Status& why) {
    const std::optional<uint64_t> left_out = log_limiter_.Admit();
    if (!left_out || !logging::ShouldCreateLogMessage(logging::LOGGING_INFO)) return;
    logging::LogMessage(__FILE__, __LINE__, logging::LOGGING_INFO).stream()
        << "A question got its default answer" << Describe(request)
        << net::LogField("reason", std::string(why.message())) << net::LogLimiter::More(*left_out);
  }

  void LogAnswer(const Request& request) const {
    if (!logging::ShouldCreateLogMessage(logging::LOGGING_VERBOSE)) return;
    logging::LogMessage(__FILE__, __LINE__, logging::LOGGING_VERBOSE).stream()
        << "A client answered a question" << Describe(request);
  }

  Scheduler& scheduler_;
  const absl::Duration time_;
  const Response default_answer_;
  std::map<Id, Question> questions_;
  net::LogLimiter log_limiter_;
  CallbackCaller<T> caller_;  // Calls back into the questions.
  net::Lifetime lifetime_;
};

namespace {

rpc::CanAccessFile::Response FileDefault(const QuestionOptions& options) {
  rpc::CanAccessFile::Response response;
  response.set_allow(options.allow_files);
  return response;
}

rpc::Authenticate::Response LoginDefault() {
  rpc::Authenticate::Response response;
  response.set_cancel(true);
  return response;
}

}  // namespace

QuestionAsker::QuestionAsker(Scheduler& scheduler, QuestionOptions options)
    : scheduler_(scheduler),
      options_(options),
      files_(std::make_unique<Desk<rpc::CanAccessFile>>(scheduler, options, FileDefault(options))),
      logins_(std::make_unique<Desk<rpc::Authenticate>>(scheduler, options, LoginDefault())) {}

QuestionAsker::~QuestionAsker() = default;

size_t QuestionAsker::open_questions() const {
  return files_->size() + logins_->size();
}

QuestionAsker::Id QuestionAsker::AskFile(const std::vector<ProfileId>& keys,
                                         const rpc::CanAccessFile::Request& request,
                                         OnFile on_answer) {
  VARNIC_CHECK(on_answer != nullptr);
  return Ask<rpc::CanAccessFile>(
      *files_, keys, request,
      [on_answer = std::move(on_answer)](const rpc::CanAccessFile::Response& response) {
        on_answer(response.allow());
      });
}

QuestionAsker::Id QuestionAsker::AskLogin(const std::vector<ProfileId>& keys,
                                          const rpc::Authenticate::Request& request,
                                          OnLogin on_answer) {
  VARNIC_CHECK(on_answer != nullptr);
  return Ask<rpc::Authenticate>(*logins_, keys, request, std::move(on_answer));
}

template <class T>
QuestionAsker::Id QuestionAsker::Ask(Desk<T>& desk, const std::vector<ProfileId>& keys,
                                     const typename T::Request& request,
                                     std::function<void(const typename T::Response&)> on_answer) {
  const Id id = ++last_id_;
  const absl::Status room = CheckRoom(ProfileOf(keys));
  if (room.ok()) {
    desk.Ask(id, keys, request, std::move(on_answer));
  } else {
    ++questions_over_limit_;
    desk.AnswerUnasked(id, request, std::move(on_answer), room);
  }
  return id;
}

absl::Status QuestionAsker::CheckRoom(const ProfileId& profile) const {
  if (open_questions() >= options_.open_questions) {
    return absl::ResourceExhaustedError("too many questions are open");
  }
  if (files_->CountOf(profile) + logins_->CountOf(profile) >= options_.open_questions_of_profile) {
    return absl::ResourceExhaustedError("the profile has too many open questions");
  }
  return absl::OkStatus();
}

void QuestionAsker::Withdraw(Id id) {
  if (!files_->Withdraw(id)) logins_->Withdraw(id);
}

}  // namespace varnic::host
