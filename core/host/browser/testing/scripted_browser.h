#ifndef CORE_HOST_BROWSER_TESTING_SCRIPTED_BROWSER_H_
#define CORE_HOST_BROWSER_TESTING_SCRIPTED_BROWSER_H_

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "absl/status/status.h"
#include "core/host/browser/devtools_pipe.h"
#include "core/net/event_loop.h"
#include "core/net/testing/fake_byte_stream.h"
#include "nlohmann/json.hpp"

namespace varnic::host::testing {

// The far end of a DevToolsPipe, played by a test: it sees the commands, and says what is answered
// and what happens.
class ScriptedBrowser {
 public:
  using Json = nlohmann::json;

  explicit ScriptedBrowser(net::EventLoop& loop, const DevToolsLimits& limits = {})
      : pipe_(std::make_unique<DevToolsPipe>(
            loop, peer_.MakeStream(), [](const absl::Status&) {}, limits)) {}

  DevToolsPipe& pipe() { return *pipe_; }
  net::testing::FakePeer& peer() { return peer_; }

  // The commands since the last call.
  std::vector<Json> TakeCommands() {
    std::vector<Json> commands;
    const std::string bytes = peer_.Take();
    for (size_t begin = 0; begin < bytes.size(); begin = bytes.find('\0', begin) + 1) {
      commands.push_back(Json::parse(bytes.c_str() + begin));
    }
    return commands;
  }

  // What they would look like on a page: "Fetch.failRequest R1".
  std::vector<std::string> TakeRequests() {
    std::vector<std::string> texts;
    for (const Json& command : TakeCommands()) {
      texts.push_back(command["method"].get<std::string>() + " " +
                      command["params"].value("requestId", ""));
    }
    return texts;
  }

  void Answer(const Json& command, const Json& result) {
    Send({{"id", command["id"]}, {"result", result}});
  }
  void Refuse(const Json& command, int code, const std::string& why) {
    Send({{"id", command["id"]}, {"error", {{"code", code}, {"message", why}}}});
  }
  void Happen(const std::string& method, const Json& params, const std::string& session = "") {
    Json event = {{"method", method}, {"params", params}};
    if (!session.empty()) event["sessionId"] = session;
    Send(event);
  }

 private:
  void Send(const Json& message) { peer_.Send(message.dump() + '\0'); }

  net::testing::FakePeer peer_;
  std::unique_ptr<DevToolsPipe> pipe_;
};

}  // namespace varnic::host::testing

#endif  // CORE_HOST_BROWSER_TESTING_SCRIPTED_BROWSER_H_
