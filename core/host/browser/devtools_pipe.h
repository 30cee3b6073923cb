#ifndef CORE_HOST_BROWSER_DEVTOOLS_PIPE_H_
#define CORE_HOST_BROWSER_DEVTOOLS_PIPE_H_

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/time/time.h"
#include "core/host/browser/devtools_message.h"
#include "core/host/browser/nul_message_reader.h"
#include "core/net/byte_stream.h"
#include "core/net/event_loop.h"
#include "core/net/lifetime.h"
#include "core/net/log_limiter.h"
#include "nlohmann/json.hpp"

namespace varnic::host {

struct DevToolsLimits {
  // For a command that does not say how long it may take.
  absl::Duration command_time = absl::Seconds(30);
  // Commands that wait for their answers.
  size_t open_commands = 10'000;
  // One command. A browser that gets one of more than 100 MiB reads nothing any more.
  size_t command_bytes = 32 << 20;
  // Commands that the browser has not read yet.
  size_t waiting_bytes = 64 << 20;
  // One message of the browser; of a longer one, only what ReadCutMessage() knows is heard. Once
  // parsed, it takes many times as much.
  size_t message_bytes = 32 << 20;
};

struct DevToolsCommand {
  std::string method;
  nlohmann::json params = nlohmann::json::object();
  std::string session_id = {};                        // Empty: for the browser itself.
  std::optional<absl::Duration> time = std::nullopt;  // Absent: as the limits say.
};

// The client's end of a browser's DevTools pipe: sends commands, and hands out their answers and
// the browser's events. Sessions are flat ones, as Target.attachToTarget and setAutoAttach make
// them with "flatten".
//
// A message that cannot be read is left out and logged, for web pages have a say in what is in it;
// a command whose answer it was runs out of time. An answer that nobody waits for is left out.
//
// Lives on the loop's thread, and the loop outlives it. Answers and listeners run from the loop, or
// inside Close() and the destructor, but never inside Call(). They may do anything to the pipe: use
// it, close it, destroy it.
class DevToolsPipe : private net::ByteStream::Visitor {
 public:
  // Runs once for each command. The result is an object. What the browser says against a command
  // has the code that DevToolsAnswer lists; otherwise:
  //   UNAVAILABLE         the pipe or the command's session has ended, or the pipe is destroyed
  //   DEADLINE_EXCEEDED   no answer in time; the browser may have done it all the same
  //   RESOURCE_EXHAUSTED  a limit: the command was not sent, or its answer is too long
  // The text names the method.
  using Answer = std::function<void(absl::StatusOr<nlohmann::json>)>;
  using Listener = std::function<void(const nlohmann::json& params)>;
  using OnEnd = std::function<void(const absl::Status& why)>;

  // `on_end` runs once when the pipe ends, after the answers of all open commands, but not when
  // it is destroyed: UNAVAILABLE if the browser ended it, or what Close() was given.
  DevToolsPipe(net::EventLoop& loop, std::unique_ptr<net::ByteStream> stream, OnEnd on_end,
               const DevToolsLimits& limits = {});
  DevToolsPipe(const DevToolsPipe&) = delete;
  DevToolsPipe& operator=(const DevToolsPipe&) = delete;
  ~DevToolsPipe() override;

  void Call(DevToolsCommand command, Answer answer);

  // Has `listener` hear each event `method` of the session, where the empty one is the browser
  // itself, instead of who heard it before; nobody, if it is null. All listeners of a session are
  // forgotten when Target.detachedFromTarget tells that it has ended, or the one in which it came.
  void Listen(const std::string& session_id, const std::string& method, Listener listener);

  // Ends the pipe, and the open commands with UNAVAILABLE. Nothing if it has ended.
  void Close(const absl::Status& why);

  bool is_open() const { return stream_ != nullptr; }
  size_t open_commands() const { return commands_.size(); }
  // Of commands that the browser has not read yet.
  size_t waiting_bytes() const { return waiting_bytes_; }
  // Messages that could not be read.
  uint64_t bad_messages() const { return bad_messages_; }

 private:
  struct OpenCommand {
    std::string method;
    std::string session_id;
    Answer answer;
    std::unique_ptr<net::Timer> timer;
  };

  // net::ByteStream::Visitor:
  void OnBytes(std::string_view bytes) override;
  void OnWritable() override { WriteWaiting(); }
  void OnClosed(const absl::Status& status) override;

  absl::Status CheckRoomFor(const std::string& message) const;
  int NextId();
  void AnswerLater(const std::string& method, Answer answer, const absl::Status& why);
  void WriteWaiting();

  // Whether the pipe still is, and is open.
  bool Handle(const NulMessage& bytes);
  void HandleMessage(DevToolsAnswer message);
  void HandleMessage(const DevToolsEvent& message);
  void HandleMessage(const DevToolsComplaint& message);
  void OnBadMessage(const absl::Status& why);
  void EndCommand(int id, absl::StatusOr<nlohmann::json> result);
  void EndCommands(std::map<int, OpenCommand>& commands, const absl::Status& why);
  void NoteSession(const DevToolsEvent& event);
  void EndSession(const std::string& session_id);
  // The session and those that came in it.
  std::set<std::string> TakeSessions(const std::string& session_id);

  net::EventLoop& loop_;
  const OnEnd on_end_;
  const DevToolsLimits limits_;
  std::map<int, OpenCommand> commands_;
  std::map<std::pair<std::string, std::string>, Listener> listeners_;  // By session and method.
  std::map<std::string, std::string> parents_;  // Of each session, the one in which it came.
  int last_id_ = 0;
  std::deque<std::string> waiting_;
  size_t written_of_first_ = 0;
  size_t waiting_bytes_ = 0;
  uint64_t bad_messages_ = 0;
  net::LogLimiter log_limiter_;
  NulMessageReader reader_;
  std::unique_ptr<net::ByteStream> stream_;  // Null once the pipe has ended.
  net::Lifetime lifetime_;
};

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_DEVTOOLS_PIPE_H_
