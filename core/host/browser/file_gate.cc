#include "core/host/browser/file_gate.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <utility>

#include "absl/status/statusor.h"
#include "absl/time/time.h"
#include "base/logging.h"
#include "core/host/browser/event_field.h"
#include "core/host/browser/file_url.h"
#include "core/net/log_field.h"

namespace varnic::host {
namespace {

// How long a page's process may take to say whose document asks; then it is who it was before.
constexpr absl::Duration kFrameTime = absl::Seconds(1);

// What the browser is going to do with the path. Does not make the system mount anything, or ask
// another machine when it need not.
rpc::CanAccessFile::Access AccessTo(const std::string& path) {
  struct statx status = {};
  const int flags = AT_NO_AUTOMOUNT | AT_STATX_DONT_SYNC;
  const bool is_known = ::statx(AT_FDCWD, path.c_str(), flags, STATX_TYPE, &status) == 0;
  return is_known && S_ISDIR(status.stx_mode) ? rpc::CanAccessFile::LIST : rpc::CanAccessFile::READ;
}

}  // namespace

FileGate::FileGate(DevToolsPipe& devtools, RequestReplies& replies, HeldRequests& held,
                   ContextFinder& contexts, const FrameTable& frames, TaskThread& files,
                   QuestionAsker& asker, QuestionKeys question_keys)
    : devtools_(devtools),
      replies_(replies),
      held_(held),
      contexts_(contexts),
      frames_(frames),
      files_(files),
      asker_(asker),
      question_keys_(std::move(question_keys)) {}

void FileGate::OnRequest(const nlohmann::json& event) {
  const std::string& request_id = EventText(event, {"requestId"});
  const std::string& frame_id = EventText(event, {"frameId"});
  const std::string& url = EventText(event, {"request", "url"});
  const absl::StatusOr<std::string> path = LocalPathOf(url);
  if (!path.ok()) {
    // Not its query, which may hold secrets.
    LogRefusal(url.substr(0, url.find_first_of("?#")), std::string(path.status().message()));
    return replies_.Refuse(request_id);
  }
  const Ticket ticket = held_.Hold(
      {request_id, frame_id, [&replies = replies_, request_id] { replies.Refuse(request_id); }});
  if (ticket == 0) {
    LogRefusal(url, "too many requests wait for answers");
    return Reply(request_id, asker_.options().allow_files);
  }
  const bool is_document = EventText(event, {"resourceType"}) == "Document";
  Request request = {ticket, request_id, frame_id, is_document, "", {}};
  request.question.set_path(*path);
  FindContext(std::move(request));
}

void FileGate::FindContext(Request request) {
  const std::string frame_id = request.frame_id;
  contexts_.Find(frame_id, lifetime_.Guard([this, request = std::move(request)](
                                               const std::optional<std::string>& context) mutable {
    if (!context) {
      LogRefusal(request.question.path(), "nobody knows which profile asks");
      return Answer(request.ticket, request.request_id, false);
    }
    request.context = *context;
    LookAtFile(std::move(request));
  }));
}

void FileGate::LookAtFile(Request request) {
  if (!held_.IsHeld(request.ticket)) return;
  const std::string path = request.question.path();
  files_.Run([path] { return AccessTo(path); },
             lifetime_.Guard(
                 [this, request = std::move(request)](rpc::CanAccessFile::Access access) mutable {
                   request.question.set_access(access);
                   AwaitFrame(std::move(request));
                 }));
}

// The browser tells of a request before the page's own process may have told whose document asks.
// That process answers in order, so that an answer to anything says that it has.
void FileGate::AwaitFrame(Request request) {
  const std::optional<std::string> session = frames_.SessionOf(request.frame_id);
  if (!session) return Ask(std::move(request));
  devtools_.Call({"Runtime.getIsolateId", nlohmann::json::object(), *session, kFrameTime},
                 lifetime_.Guard([this, request = std::move(request)](
                                     const absl::StatusOr<nlohmann::json>&) mutable {
                   Ask(std::move(request));
                 }));
}

void FileGate::Ask(Request request) {
  if (!held_.IsHeld(request.ticket)) return;
  request.question.set_origin(frames_.AskerOf(request.frame_id, request.is_document));
  auto on_answer = lifetime_.Guard([this, ticket = request.ticket, request_id = request.request_id](
                                       bool allow) { Answer(ticket, request_id, allow); });
  held_.SetQuestion(request.ticket, asker_.AskFile(question_keys_(request.context),
                                                   request.question, std::move(on_answer)));
}

void FileGate::Answer(Ticket ticket, const std::string& request_id, bool allow) {
  if (held_.Release(ticket)) Reply(request_id, allow);
}

void FileGate::Reply(const std::string& request_id, bool allow) {
  if (allow) {
    replies_.Continue(request_id);
  } else {
    replies_.Refuse(request_id);
  }
}

void FileGate::LogRefusal(const std::string& url, const std::string& why) {
  const std::optional<uint64_t> left_out = log_limiter_.Admit();
  if (!left_out || !logging::ShouldCreateLogMessage(logging::LOGGING_INFO)) return;
  logging::LogMessage(__FILE__, __LINE__, logging::LOGGING_INFO).stream()
      << "A file was not asked about" << net::LogField("file", url) << net::LogField("reason", why)
      << net::LogLimiter::More(*left_out);
}

}  // namespace varnic::host
