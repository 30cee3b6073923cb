#include "core/host/browser/devtools_pipe.h"

#include <limits>

#include "absl/strings/str_cat.h"
#include "base/logging.h"
#include "core/common/rpc/fatal.h"
#include "core/host/browser/cut_message.h"
#include "core/host/browser/json_field.h"
#include "core/net/log_field.h"

namespace varnic::host {
namespace {

absl::Status About(const std::string& method, const absl::Status& status) {
  return absl::Status(status.code(), absl::StrCat(method, ": ", status.message()));
}

absl::Status Ended(const absl::Status& why) {
  return absl::UnavailableError(why.message());
}

}  // namespace

DevToolsPipe::DevToolsPipe(net::EventLoop& loop, std::unique_ptr<net::ByteStream> stream,
                           OnEnd on_end, const DevToolsLimits& limits)
    : loop_(loop),
      on_end_(std::move(on_end)),
      limits_(limits),
      reader_(limits.message_bytes),
      stream_(std::move(stream)) {
  stream_->Start(*this);
}

DevToolsPipe::~DevToolsPipe() {
  VARNIC_CHECK(loop_.IsLoopThread());
  stream_ = nullptr;
  std::map<int, OpenCommand> ended = std::exchange(commands_, {});
  EndCommands(ended, absl::UnavailableError("the browser is given up"));
}

void DevToolsPipe::Call(DevToolsCommand command, Answer answer) {
  VARNIC_CHECK(loop_.IsLoopThread());
  if (!is_open()) {
    return AnswerLater(command.method, std::move(answer),
                       absl::UnavailableError("the pipe to the browser has ended"));
  }
  const int id = NextId();
  std::string message =
      SerializeDevToolsCommand(id, command.method, command.params, command.session_id);
  if (const absl::Status room = CheckRoomFor(message); !room.ok()) {
    return AnswerLater(command.method, std::move(answer), room);
  }
  const absl::Duration time = command.time.value_or(limits_.command_time);
  auto timer = std::make_unique<net::Timer>(loop_);
  timer->Start(time, [this, id, time] {
    EndCommand(id, absl::DeadlineExceededError(
                       absl::StrCat("no answer within ", absl::FormatDuration(time))));
  });
  commands_[id] = {std::move(command.method), std::move(command.session_id), std::move(answer),
                   std::move(timer)};
  waiting_bytes_ += message.size();
  waiting_.push_back(std::move(message));
  WriteWaiting();
}

absl::Status DevToolsPipe::CheckRoomFor(const std::string& message) const {
  if (message.size() > limits_.command_bytes) {
    return absl::ResourceExhaustedError(
        absl::StrCat("the command has more than ", limits_.command_bytes, " bytes"));
  }
  if (commands_.size() >= limits_.open_commands) {
    return absl::ResourceExhaustedError(
        absl::StrCat("the browser has not answered ", limits_.open_commands, " commands yet"));
  }
  if (message.size() > limits_.waiting_bytes - waiting_bytes_) {
    return absl::ResourceExhaustedError(
        absl::StrCat("the browser does not read: ", waiting_bytes_, " bytes wait for it already"));
  }
  return absl::OkStatus();
}

// Ids are 32-bit integers; they come round again after two billion commands.
int DevToolsPipe::NextId() {
  do {
    last_id_ = last_id_ == std::numeric_limits<int32_t>::max() ? 1 : last_id_ + 1;
  } while (commands_.count(last_id_) != 0);
  return last_id_;
}

void DevToolsPipe::AnswerLater(const std::string& method, Answer answer, const absl::Status& why) {
  loop_.Post([answer = std::move(answer), status = About(method, why)] { answer(status); });
}

void DevToolsPipe::WriteWaiting() {
  while (is_open() && !waiting_.empty()) {
    const std::string_view rest = std::string_view(waiting_.front()).substr(written_of_first_);
    const size_t written = stream_->Write(rest);
    waiting_bytes_ -= written;
    written_of_first_ += written;
    if (written < rest.size()) return;
    waiting_.pop_front();
    written_of_first_ = 0;
  }
}

void DevToolsPipe::Listen(const std::string& session_id, const std::string& method,
                          Listener listener) {
  if (listener == nullptr) {
    listeners_.erase({session_id, method});
  } else {
    listeners_[{session_id, method}] = std::move(listener);
  }
}

void DevToolsPipe::OnBytes(std::string_view bytes) {
  reader_.Read(bytes, [this](const NulMessage& message) { return Handle(message); });
}

bool DevToolsPipe::Handle(const NulMessage& bytes) {
  bool goes_on = false;
  auto check = lifetime_.Guard([this, &goes_on] { goes_on = is_open(); });
  absl::StatusOr<DevToolsMessage> message =
      bytes.ending.empty() ? ParseDevToolsMessage(bytes.text) : ReadCutMessage(bytes);
  if (message.ok()) {
    std::visit([this](auto& kind) { HandleMessage(std::move(kind)); }, *message);
  } else {
    OnBadMessage(message.status());
  }
  check();
  return goes_on;
}

void DevToolsPipe::HandleMessage(DevToolsAnswer message) {
  EndCommand(message.id, std::move(message.result));
}

void DevToolsPipe::HandleMessage(const DevToolsEvent& message) {
  const auto it = listeners_.find({message.session_id, message.method});
  // A copy, for it may replace itself.
  auto listener = lifetime_.Guard(it == listeners_.end() ? Listener() : it->second);
  const bool is_heard = it != listeners_.end();
  NoteSession(message);
  if (is_heard) listener(message.params);
}

void DevToolsPipe::HandleMessage(const DevToolsComplaint& message) {
  OnBadMessage(message.error);
}

void DevToolsPipe::OnBadMessage(const absl::Status& why) {
  ++bad_messages_;
  const std::optional<uint64_t> left_out = log_limiter_.Admit();
  if (!left_out || !logging::ShouldCreateLogMessage(logging::LOGGING_WARNING)) return;
  logging::LogMessage(__FILE__, __LINE__, logging::LOGGING_WARNING).stream()
      << "A browser sent what is no answer and no event"
      << net::LogField("reason", std::string(why.message())) << net::LogLimiter::More(*left_out);
}

void DevToolsPipe::EndCommand(int id, absl::StatusOr<nlohmann::json> result) {
  const auto it = commands_.find(id);
  if (it == commands_.end()) return;
  const OpenCommand command = std::move(it->second);
  commands_.erase(it);
  if (!result.ok()) result = About(command.method, result.status());
  command.answer(std::move(result));
}

void DevToolsPipe::EndCommands(std::map<int, OpenCommand>& commands, const absl::Status& why) {
  // No timer must end one of them while another's answer runs the loop's callbacks.
  for (auto& [id, command] : commands) command.timer = nullptr;
  for (auto& [id, command] : commands) command.answer(About(command.method, Ended(why)));
}

void DevToolsPipe::NoteSession(const DevToolsEvent& event) {
  const std::string session_id = TextAt(event.params, "sessionId");
  if (session_id.empty()) return;  // The browser itself ends with its pipe.
  if (event.method == "Target.attachedToTarget") parents_[session_id] = event.session_id;
  if (event.method == "Target.detachedFromTarget") EndSession(session_id);
}

// A browser does not always tell of the sessions that end with another one.
std::set<std::string> DevToolsPipe::TakeSessions(const std::string& session_id) {
  std::set<std::string> taken = {session_id};
  std::vector<std::string> unseen = {session_id};
  while (!unseen.empty()) {
    const std::string parent = std::move(unseen.back());
    unseen.pop_back();
    parents_.erase(parent);
    for (const auto& [child, its_parent] : parents_) {
      if (its_parent == parent && taken.insert(child).second) unseen.push_back(child);
    }
  }
  return taken;
}

void DevToolsPipe::EndSession(const std::string& session_id) {
  const std::set<std::string> sessions = TakeSessions(session_id);
  std::map<int, OpenCommand> ended;
  for (auto it = commands_.begin(); it != commands_.end();) {
    const auto next = std::next(it);
    if (sessions.count(it->second.session_id) != 0) ended.insert(commands_.extract(it));
    it = next;
  }
  for (auto it = listeners_.begin(); it != listeners_.end();) {
    it = sessions.count(it->first.first) != 0 ? listeners_.erase(it) : std::next(it);
  }
  EndCommands(ended, absl::UnavailableError("the session has ended"));
}

void DevToolsPipe::Close(const absl::Status& why) {
  if (!is_open()) return;
  stream_ = nullptr;
  waiting_.clear();
  waiting_bytes_ = 0;
  listeners_.clear();
  parents_.clear();
  auto on_end = lifetime_.Guard(on_end_);
  // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): a callback may destroy its owner.
  const absl::Status status = why;
  std::map<int, OpenCommand> ended = std::exchange(commands_, {});
  EndCommands(ended, status);
  on_end(status);
}

void DevToolsPipe::OnClosed(const absl::Status& status) {
  Close(absl::UnavailableError(status.ok() ? "the browser has closed its pipe" : status.message()));
}

}  // namespace varnic::host
