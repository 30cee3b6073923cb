// What a browser may write to its DevTools pipe: the first byte says in pieces of which size.
// Splitting must never matter; each command is answered once, at the end of the pipe at the latest;
// listeners hear only what is theirs.

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "absl/strings/str_cat.h"
#include "core/common/rpc/fatal.h"
#include "core/host/browser/devtools_pipe.h"
#include "core/net/event_loop.h"
#include "core/net/testing/fake_byte_stream.h"
#include "fuzz/fuzz_input.h"
#include "fuzz/quiet_logs.h"

namespace varnic::fuzz {
namespace {

using Json = nlohmann::json;

constexpr int kCommands = 5;
constexpr size_t kMaxMessageBytes = 4096;

struct Outcome {
  std::vector<std::string> events;
  uint64_t bad_messages = 0;
};

// Five commands, every other one for a session, and a listener for each of both.
Outcome Hear(net::EventLoop& loop, std::string_view bytes, size_t piece_size) {
  Outcome outcome;
  net::testing::FakePeer peer;
  int ends = 0;
  host::DevToolsLimits limits;
  limits.message_bytes = kMaxMessageBytes;
  host::DevToolsPipe pipe(
      loop, peer.MakeStream(),
      [&](const absl::Status& why) {
        ++ends;
        outcome.events.push_back(why.ToString());
      },
      limits);
  std::vector<int> answers(kCommands);
  for (int i = 0; i < kCommands; ++i) {
    pipe.Call({"A.b", Json::object(), i % 2 == 0 ? "" : "S"},
              [&, i](const absl::StatusOr<Json>& answer) {
                ++answers[static_cast<size_t>(i)];
                VARNIC_CHECK(!answer.ok() || answer->is_object());
                outcome.events.push_back(absl::StrCat(i, " ", answer.status().ToString()));
              });
  }
  for (const char* session : {"", "S"}) {
    pipe.Listen(session, "A.happened", [&outcome, session](const Json& params) {
      VARNIC_CHECK(params.is_object());
      outcome.events.push_back(absl::StrCat("event ", session));
    });
  }

  peer.SendInPieces(bytes, piece_size);
  outcome.bad_messages = pipe.bad_messages();
  VARNIC_CHECK(pipe.is_open() == (ends == 0) && pipe.is_open() == peer.open());
  peer.Close();

  VARNIC_CHECK(ends == 1 && pipe.open_commands() == 0);
  for (const int count : answers) VARNIC_CHECK(count == 1);
  return outcome;
}

void Check(FuzzInput input) {
  net::EventLoop loop;
  const size_t piece_size = input.TakeByte() + size_t{1};
  const std::string_view bytes = input.TakeRest();
  const Outcome pieces = Hear(loop, bytes, piece_size);
  const Outcome whole = Hear(loop, bytes, bytes.size() + 1);
  VARNIC_CHECK(pieces.events == whole.events);
  VARNIC_CHECK(pieces.bad_messages == whole.bad_messages);
}

}  // namespace
}  // namespace varnic::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  varnic::fuzz::QuietLogs();
  varnic::fuzz::Check(varnic::fuzz::FuzzInput(data, size));
  return 0;
}
