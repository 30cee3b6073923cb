// What a browser may tell of its requests and frames, in any order and form. Every request is
// answered or held; no more are held, and no more questions open, than the limits say; and nothing
// is left when the gate is gone.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "absl/strings/str_cat.h"
#include "core/common/rpc/fatal.h"
#include "core/common/rpc/testing/fake_scheduler.h"
#include "core/host/browser/request_gate.h"
#include "core/host/browser/testing/scripted_browser.h"
#include "fuzz/fuzz_input.h"
#include "fuzz/quiet_logs.h"

namespace varnic::fuzz {
namespace {

using Json = nlohmann::json;
using host::testing::ScriptedBrowser;

constexpr size_t kMaxQuestions = 3;

// One of a few short names, so that events meet.
std::string Name(FuzzInput& input) {
  return absl::StrCat("n", input.TakeBelow(5));
}
// A text that is UTF-8: the pipe lets no other through.
std::string Text(FuzzInput& input) {
  std::string text(input.TakePiece());
  for (char& byte : text) byte = static_cast<char>(byte & 0x7f);
  return text;
}

void SendRequest(FuzzInput& input, ScriptedBrowser& browser) {
  const char* const schemes[] = {"file://", "file:///", "http://", ""};
  Json event = {{"requestId", Name(input)},
                {"frameId", Name(input)},
                {"resourceType", input.TakeBool() ? "Document" : "Image"},
                {"request", {{"url", schemes[input.TakeBelow(4)] + Text(input)}}}};
  if (input.TakeBool()) {
    return browser.Happen("Fetch.requestPaused", event);
  }
  event["authChallenge"] = {{"origin", Text(input)},
                            {"scheme", Text(input)},
                            {"source", input.TakeBool() ? "Proxy" : "Server"}};
  browser.Happen("Fetch.authRequired", event);
}

void SendFrameEvent(FuzzInput& input, ScriptedBrowser& browser) {
  const char* const events[] = {"frameAttached",       "frameDetached",
                                "frameNavigated",      "frameRequestedNavigation",
                                "frameStoppedLoading", "frameStartedNavigating"};
  const char* const method = events[input.TakeBelow(6)];
  const std::string session = Name(input);
  browser.Happen(absl::StrCat("Page.", method),
                 {{"frameId", Name(input)},
                  {"parentFrameId", Name(input)},
                  {"reason", input.TakeBool() ? "swap" : "remove"},
                  {"frame", {{"id", Name(input)}, {"securityOrigin", Text(input)}}}},
                 session);
}

void AnswerCommands(FuzzInput& input, ScriptedBrowser& browser) {
  for (const Json& command : browser.TakeCommands()) {
    switch (input.TakeBelow(4)) {
      case 0:
        browser.Answer(command, {{"targetInfo", {{"browserContextId", Name(input)}}},
                                 {"browserContextIds", {Name(input)}}});
        break;
      case 1:
        browser.Refuse(command, -32602, "Invalid InterceptionId.");
        break;
      case 2:
        browser.Refuse(command, -32000, "not now");
        break;
      default:
        break;
    }
  }
}

void Check(FuzzInput input) {
  net::EventLoop loop;
  varnic::testing::FakeScheduler scheduler;
  host::QuestionOptions options;
  options.open_questions = kMaxQuestions;
  host::QuestionAsker asker(scheduler, options);
  host::TaskThread files([&loop](std::function<void()> task) { loop.Post(std::move(task)); });
  ScriptedBrowser browser(loop);
  auto gate = std::make_unique<host::RequestGate>(
      browser.pipe(), files, asker, [](const std::string&) { return std::vector<ProfileId>(1); });
  gate->Start([](const absl::Status&) {});
  while (!input.empty()) {
    switch (input.TakeBelow(7)) {
      case 0:
        gate->OnPageAttached(Name(input), Name(input), input.TakeBool() ? "" : Name(input));
        break;
      case 1:
        gate->OnPageDetached(Name(input));
        break;
      case 2:
        SendFrameEvent(input, browser);
        break;
      case 3:
        AnswerCommands(input, browser);
        break;
      case 4:
        scheduler.Advance(absl::Seconds(input.TakeBelow(60)));
        loop.RunPending();
        break;
      default:
        SendRequest(input, browser);
        break;
    }
    VARNIC_CHECK(asker.open_questions() <= kMaxQuestions);
  }
  gate = nullptr;
  VARNIC_CHECK(asker.open_questions() == 0);
}

}  // namespace
}  // namespace varnic::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  varnic::fuzz::QuietLogs();
  varnic::fuzz::Check(varnic::fuzz::FuzzInput(data, size));
  return 0;
}
