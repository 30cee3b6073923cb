#ifndef CORE_HOST_BROWSER_FILE_GATE_H_
#define CORE_HOST_BROWSER_FILE_GATE_H_

#include <functional>
#include <string>
#include <vector>

#include "core/host/browser/context_finder.h"
#include "core/host/browser/devtools_pipe.h"
#include "core/host/browser/frame_table.h"
#include "core/host/browser/held_requests.h"
#include "core/host/browser/request_replies.h"
#include "core/host/question_asker.h"
#include "core/host/task_thread.h"
#include "core/net/lifetime.h"
#include "core/net/log_limiter.h"
#include "nlohmann/json.hpp"
#include "rpc/profile/profile.pb.h"

namespace varnic::host {

// Has the clients asked about each file that a page or a client opens, and lets the request pass or
// refuses it. A folder is asked about as LIST, everything else as READ. What names no file of this
// machine, or comes from nobody knows which profile, is refused without a question.
//
// Lives on the pipe's thread; what it is given outlives it, and `files` posts back to that thread.
class FileGate {
 public:
  using QuestionKeys = std::function<std::vector<ProfileId>(const std::string& context)>;

  FileGate(DevToolsPipe& devtools, RequestReplies& replies, HeldRequests& held,
           ContextFinder& contexts, const FrameTable& frames, TaskThread& files,
           QuestionAsker& asker, QuestionKeys question_keys);
  FileGate(const FileGate&) = delete;
  FileGate& operator=(const FileGate&) = delete;

  // A Fetch.requestPaused event with a file URL.
  void OnRequest(const nlohmann::json& event);

 private:
  using Ticket = HeldRequests::Ticket;
  using Question = rpc::CanAccessFile::Request;

  struct Request {
    Ticket ticket;
    std::string request_id;
    std::string frame_id;
    bool is_document;
    std::string context;
    Question question;
  };

  // The steps, each of which leads to the next or to the answer.
  void FindContext(Request request);
  void LookAtFile(Request request);
  void AwaitFrame(Request request);
  void Ask(Request request);
  void Answer(Ticket ticket, const std::string& request_id, bool allow);
  void Reply(const std::string& request_id, bool allow);
  void LogRefusal(const std::string& url, const std::string& why);

  DevToolsPipe& devtools_;
  RequestReplies& replies_;
  HeldRequests& held_;
  ContextFinder& contexts_;
  const FrameTable& frames_;
  TaskThread& files_;
  QuestionAsker& asker_;
  const QuestionKeys question_keys_;
  net::LogLimiter log_limiter_;
  net::Lifetime lifetime_;
};

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_FILE_GATE_H_
