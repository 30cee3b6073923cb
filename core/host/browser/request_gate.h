#ifndef CORE_HOST_BROWSER_REQUEST_GATE_H_
#define CORE_HOST_BROWSER_REQUEST_GATE_H_

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "absl/status/status.h"
#include "core/host/browser/devtools_pipe.h"
#include "core/host/question_asker.h"
#include "core/host/task_thread.h"
#include "rpc/identifiers.pb.h"

namespace varnic::host {

// Stands before the requests of one browser: has the clients asked whether a file may be read, and
// which credentials a server or a proxy gets. Everything else passes.
//
// Made when the browser is up, and destroyed when it is gone or before: that withdraws the open
// questions and fails what waits for them. Lives on the loop's thread; all that it is given
// outlives it, and `files` posts back to that loop.
class RequestGate {
 public:
  // The keys under which clients may answer for a browser context, first come first. The empty one
  // is the persistent profile.
  using QuestionKeys = std::function<std::vector<ProfileId>(const std::string& context)>;

  RequestGate(DevToolsPipe& devtools, TaskThread& files, QuestionAsker& asker,
              const QuestionKeys& question_keys);
  RequestGate(const RequestGate&) = delete;
  RequestGate& operator=(const RequestGate&) = delete;
  ~RequestGate();

  // Before any page is opened: nothing passes by the gate once `on_started` has run with OK. It
  // runs once, unless the gate is destroyed before.
  void Start(std::function<void(absl::Status)> on_started);

  // Has requests of the network that carry one of these headers, named in lower case, carry it with
  // this value. None at first.
  void OverrideHeaders(std::map<std::string, std::string> headers);

  // A session of a page or of a frame with a process of its own ("page" and "iframe" targets),
  // which is still held back. The gate enables Page on it, and takes its Page events.
  void OnPageAttached(const std::string& session_id, const std::string& target_id,
                      const std::string& context);
  // The session has ended: what its frames had asked is withdrawn.
  void OnPageDetached(const std::string& session_id);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_REQUEST_GATE_H_
