#include "core/host/browser/devtools_pipe.h"

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/strings/str_cat.h"
#include "core/net/testing/fake_byte_stream.h"
#include "core/net/testing/fake_clock.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using Json = nlohmann::json;
using net::testing::FakePeer;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

// The events of a test, in their order: answers, what listeners hear, the pipe's end.
class DevToolsPipeTest : public ::testing::Test {
 protected:
  DevToolsPipeTest() { Open({}); }

  void Open(const DevToolsLimits& limits) {
    pipe_ = nullptr;
    peer_ = std::make_unique<FakePeer>();
    pipe_ = std::make_unique<DevToolsPipe>(
        loop_, peer_->MakeStream(), [this](const absl::Status& why) { Note("closed", why); },
        limits);
  }

  void Note(const std::string& what, const absl::Status& status) {
    log_.push_back(absl::StrCat(what, " ", absl::StatusCodeToString(status.code())));
    last_text_ = std::string(status.message());
  }
  DevToolsPipe::Answer NoteAs(const std::string& name) {
    return [this, name](const absl::StatusOr<Json>& result) {
      if (!result.ok()) return Note(name, result.status());
      log_.push_back(absl::StrCat(name, " ", result->dump()));
    };
  }
  DevToolsPipe::Listener HearAs(const std::string& name) {
    return [this, name](const Json& params) { log_.push_back(name + " " + params.dump()); };
  }

  void Call(const std::string& method, const std::string& session = "",
            std::optional<absl::Duration> time = std::nullopt) {
    pipe_->Call({method, Json::object(), session, time}, NoteAs(method));
  }
  void Send(const std::string& text) { peer_->Send(text + '\0'); }
  void RunAll() {
    while (loop_.RunPending() != 0) continue;
  }
  // The commands that the browser has got since the last call.
  std::vector<Json> Received() {
    std::vector<Json> commands;
    const std::string bytes = peer_->Take();
    for (size_t begin = 0; begin < bytes.size(); begin = bytes.find('\0', begin) + 1) {
      commands.push_back(Json::parse(bytes.c_str() + begin));
    }
    return commands;
  }

  net::testing::FakeClock clock_;
  net::EventLoop loop_;
  std::vector<std::string> log_;
  std::string last_text_;
  std::unique_ptr<FakePeer> peer_;
  std::unique_ptr<DevToolsPipe> pipe_;
};

TEST_F(DevToolsPipeTest, CommandsHaveIdsOfTheirOwn) {
  Call("A.a");
  Call("B.b", "S");

  const std::vector<Json> commands = Received();

  ASSERT_EQ(commands.size(), 2u);
  EXPECT_EQ(commands[0], Json({{"id", 1}, {"method", "A.a"}, {"params", Json::object()}}));
  EXPECT_EQ(commands[1]["id"], 2);
  EXPECT_EQ(commands[1]["sessionId"], "S");
}

TEST_F(DevToolsPipeTest, AnswersFindTheirCommandsInAnyOrder) {
  Call("A.a");
  Call("B.b");

  Send(R"({"id":2,"result":{"b":1}})");
  Send(R"({"id":1,"error":{"code":-32601,"message":"unknown"}})");

  EXPECT_THAT(log_, ElementsAre(R"(B.b {"b":1})", "A.a UNIMPLEMENTED"));
  EXPECT_EQ(last_text_, "A.a: unknown (code -32601)");
  EXPECT_EQ(pipe_->open_commands(), 0u);
}

TEST_F(DevToolsPipeTest, SecondAnswerIsLeftOut) {
  Call("A.a");

  Send(R"({"id":1,"result":{}})");
  Send(R"({"id":1,"result":{}})");
  Send(R"({"id":99,"result":{}})");

  EXPECT_THAT(log_, ElementsAre("A.a {}"));
}

TEST_F(DevToolsPipeTest, CommandRunsOutOfTimeOnce) {
  Call("A.a", "", absl::Seconds(2));
  Call("B.b");
  clock_.Advance(absl::Seconds(2));
  RunAll();

  Send(R"({"id":1,"result":{}})");

  EXPECT_THAT(log_, ElementsAre("A.a DEADLINE_EXCEEDED"));
  EXPECT_EQ(last_text_, "A.a: no answer within 2s");
  EXPECT_EQ(pipe_->open_commands(), 1u);
}

TEST_F(DevToolsPipeTest, AnsweredCommandDoesNotRunOutOfTime) {
  Call("A.a");
  Send(R"({"id":1,"result":{}})");

  clock_.Advance(absl::Hours(1));
  RunAll();

  EXPECT_THAT(log_, ElementsAre("A.a {}"));
}

TEST_F(DevToolsPipeTest, EventsGoToTheListenerOfTheirSessionAndMethod) {
  pipe_->Listen("", "A.happened", HearAs("root"));
  pipe_->Listen("S", "A.happened", HearAs("session"));

  Send(R"({"method":"A.happened","params":{"n":1}})");
  Send(R"({"method":"A.happened","params":{"n":2},"sessionId":"S"})");
  Send(R"({"method":"A.happened","params":{"n":3},"sessionId":"T"})");
  Send(R"({"method":"A.other","params":{"n":4}})");

  EXPECT_THAT(log_, ElementsAre(R"(root {"n":1})", R"(session {"n":2})"));
}

TEST_F(DevToolsPipeTest, ListenerCanBeReplacedAndTakenAway) {
  pipe_->Listen("", "A.happened", HearAs("first"));
  pipe_->Listen("", "A.happened", HearAs("second"));
  Send(R"({"method":"A.happened"})");

  pipe_->Listen("", "A.happened", nullptr);
  Send(R"({"method":"A.happened"})");

  EXPECT_THAT(log_, ElementsAre("second {}"));
}

TEST_F(DevToolsPipeTest, EndOfASessionEndsItsCommandsAndListeners) {
  pipe_->Listen("", "Target.detachedFromTarget", HearAs("detached"));
  pipe_->Listen("S", "A.happened", HearAs("session"));
  Call("A.a", "S");
  Call("B.b", "T");

  Send(R"({"method":"Target.detachedFromTarget","params":{"sessionId":"S"}})");
  Send(R"({"method":"A.happened","sessionId":"S"})");

  EXPECT_THAT(log_, ElementsAre("A.a UNAVAILABLE", R"(detached {"sessionId":"S"})"));
  EXPECT_EQ(pipe_->open_commands(), 1u);
}

TEST_F(DevToolsPipeTest, SessionsEndWithTheOneInWhichTheyCame) {
  Send(R"({"method":"Target.attachedToTarget","sessionId":"S","params":{"sessionId":"T"}})");
  Send(R"({"method":"Target.attachedToTarget","sessionId":"T","params":{"sessionId":"U"}})");
  Call("A.a", "U");
  Call("B.b", "V");

  Send(R"({"method":"Target.detachedFromTarget","params":{"sessionId":"S"}})");

  EXPECT_THAT(log_, ElementsAre("A.a UNAVAILABLE"));
  EXPECT_EQ(pipe_->open_commands(), 1u);
}

TEST_F(DevToolsPipeTest, EndOfAnUnnamedSessionEndsNothing) {
  Call("A.a");
  pipe_->Listen("", "A.happened", HearAs("root"));

  Send(R"({"method":"Target.detachedFromTarget","params":{"sessionId":""}})");
  Send(R"({"method":"Target.detachedFromTarget","params":{"sessionId":7}})");
  Send(R"({"method":"A.happened"})");

  EXPECT_THAT(log_, ElementsAre("root {}"));
}

TEST_F(DevToolsPipeTest, EndOfThePipeEndsEveryCommandOnce) {
  Call("A.a");
  Call("B.b", "S");

  peer_->Close();
  clock_.Advance(absl::Hours(1));
  RunAll();

  EXPECT_THAT(log_, ElementsAre("A.a UNAVAILABLE", "B.b UNAVAILABLE", "closed UNAVAILABLE"));
  EXPECT_EQ(last_text_, "the browser has closed its pipe");
  EXPECT_FALSE(pipe_->is_open());
}

TEST_F(DevToolsPipeTest, EndInTheMiddleOfAnAnswerEndsTheCommand) {
  Call("A.a");
  peer_->Send(R"({"id":1,"resu)");

  peer_->Close();

  EXPECT_THAT(log_, ElementsAre("A.a UNAVAILABLE", "closed UNAVAILABLE"));
}

TEST_F(DevToolsPipeTest, BrokenPipeSaysWhy) {
  peer_->Break();

  EXPECT_THAT(log_, ElementsAre("closed UNAVAILABLE"));
  EXPECT_THAT(last_text_, HasSubstr("the cable was cut"));
}

TEST_F(DevToolsPipeTest, CommandAfterTheEndFailsLater) {
  peer_->Close();
  log_.clear();

  Call("A.a");
  EXPECT_THAT(log_, IsEmpty());
  RunAll();

  EXPECT_THAT(log_, ElementsAre("A.a UNAVAILABLE"));
}

TEST_F(DevToolsPipeTest, CloseEndsCommandsWithItsReason) {
  Call("A.a");

  pipe_->Close(absl::ResourceExhaustedError("enough"));
  pipe_->Close(absl::InternalError("not again"));

  EXPECT_THAT(log_, ElementsAre("A.a UNAVAILABLE", "closed RESOURCE_EXHAUSTED"));
  EXPECT_FALSE(peer_->open());
}

TEST_F(DevToolsPipeTest, DestroyedPipeEndsItsCommands) {
  Call("A.a");

  pipe_ = nullptr;

  EXPECT_THAT(log_, ElementsAre("A.a UNAVAILABLE"));
}

TEST_F(DevToolsPipeTest, GarbageIsLeftOut) {
  Call("A.a");

  Send("garbage");
  Send("{}");
  Send("\xff\xfe");
  Send(R"({"error":{"code":-32700,"message":"cannot read that"}})");
  Send(R"({"id":1,"result":{}})");

  EXPECT_THAT(log_, ElementsAre("A.a {}"));
  EXPECT_EQ(pipe_->bad_messages(), 4u);
}

TEST_F(DevToolsPipeTest, TooLongAnAnswerIsAnError) {
  DevToolsLimits limits;
  limits.message_bytes = 100;
  Open(limits);
  Call("A.a");

  Send(R"({"id":1,"result":{"a":")" + std::string(101, 'x') + R"("}})");

  EXPECT_THAT(log_, ElementsAre("A.a RESOURCE_EXHAUSTED"));
  EXPECT_TRUE(peer_->open());
}

TEST_F(DevToolsPipeTest, TooLongAnEventIsHeardAsFarAsItGoes) {
  DevToolsLimits limits;
  limits.message_bytes = 100;
  Open(limits);
  Json heard;
  pipe_->Listen("S", "Page.frameNavigated", [&heard](const Json& params) { heard = params; });

  Send(R"({"method":"Page.frameNavigated","params":{"frame":{"id":"F","name":")" +
       std::string(101, 'x') + R"("}},"sessionId":"S"})");

  EXPECT_EQ(heard, Json::parse(R"({"frame":{"id":"F"}})"));
}

TEST_F(DevToolsPipeTest, AnythingElseThatIsTooLongIsLeftOut) {
  DevToolsLimits limits;
  limits.message_bytes = 100;
  Open(limits);
  Call("A.a");

  Send(std::string(101, 'x'));
  Send(R"({"id":1,"result":{}})");

  EXPECT_THAT(log_, ElementsAre("A.a {}"));
  EXPECT_EQ(pipe_->bad_messages(), 1u);
}

TEST_F(DevToolsPipeTest, TooLongACommandIsNotSent) {
  DevToolsLimits limits;
  limits.command_bytes = 100;
  Open(limits);

  pipe_->Call({"A.a", {{"text", std::string(100, 'x')}}}, NoteAs("A.a"));
  RunAll();

  EXPECT_THAT(log_, ElementsAre("A.a RESOURCE_EXHAUSTED"));
  EXPECT_THAT(Received(), IsEmpty());
}

TEST_F(DevToolsPipeTest, TooManyOpenCommandsAreNotSent) {
  DevToolsLimits limits;
  limits.open_commands = 2;
  Open(limits);
  Call("A.a");
  Call("B.b");

  Call("C.c");
  RunAll();

  EXPECT_THAT(log_, ElementsAre("C.c RESOURCE_EXHAUSTED"));
  EXPECT_EQ(Received().size(), 2u);
}

TEST_F(DevToolsPipeTest, BrowserThatDoesNotReadIsSentNoMoreThanTheBound) {
  DevToolsLimits limits;
  limits.waiting_bytes = 100;
  Open(limits);
  peer_->LimitRoom(0);
  Call("A.first");
  Call("A.second");

  Call("A.third");
  RunAll();

  EXPECT_THAT(log_, ElementsAre("A.third RESOURCE_EXHAUSTED"));
  EXPECT_THAT(last_text_, HasSubstr("does not read"));
  EXPECT_LE(pipe_->waiting_bytes(), 100u);
}

TEST_F(DevToolsPipeTest, WhatWaitsIsSentWhenTheBrowserReadsAgain) {
  peer_->LimitRoom(10);
  Call("A.a");
  Call("B.b");
  EXPECT_GT(pipe_->waiting_bytes(), 0u);

  peer_->MakeRoom();

  EXPECT_EQ(pipe_->waiting_bytes(), 0u);
  EXPECT_EQ(Received().size(), 2u);
}

TEST_F(DevToolsPipeTest, MessagesMayComeInAnyPieces) {
  Call("A.a");
  pipe_->Listen("", "A.happened", HearAs("event"));
  const std::string bytes =
      std::string(R"({"id":1,"result":{"a":"é"}})") + '\0' + R"({"method":"A.happened"})" + '\0';

  peer_->SendInPieces(bytes, 1);

  EXPECT_THAT(log_, ElementsAre(R"(A.a {"a":"é"})", "event {}"));
}

TEST_F(DevToolsPipeTest, AnswerMaySendTheNextCommand) {
  pipe_->Call({"A.a"}, [this](const absl::StatusOr<Json>&) { Call("B.b"); });

  Send(R"({"id":1,"result":{}})");
  Send(R"({"id":2,"result":{}})");

  EXPECT_THAT(log_, ElementsAre("B.b {}"));
}

TEST_F(DevToolsPipeTest, AnswerMayDestroyThePipe) {
  pipe_->Call({"A.a"}, [this](const absl::StatusOr<Json>&) { pipe_ = nullptr; });
  Call("B.b");

  peer_->Send(std::string(R"({"id":1,"result":{}})") + '\0' + R"({"id":2,"result":{}})" + '\0');

  EXPECT_THAT(log_, ElementsAre("B.b UNAVAILABLE"));
  EXPECT_FALSE(peer_->open());
}

TEST_F(DevToolsPipeTest, ListenerMayCloseThePipe) {
  pipe_->Listen("", "A.happened", [this](const Json&) { pipe_->Close(absl::OkStatus()); });
  Call("B.b");

  peer_->Send(std::string(R"({"method":"A.happened"})") + '\0' + R"({"id":1,"result":{}})" + '\0');

  EXPECT_THAT(log_, ElementsAre("B.b UNAVAILABLE", "closed OK"));
}

TEST_F(DevToolsPipeTest, PipeMayBeDestroyedByWhatItsEndCauses) {
  pipe_->Call({"A.a"}, [this](const absl::StatusOr<Json>&) { pipe_ = nullptr; });
  Call("B.b");

  peer_->Close();

  EXPECT_THAT(log_, ElementsAre("B.b UNAVAILABLE"));
}

TEST_F(DevToolsPipeTest, EndOfASessionMayDestroyThePipe) {
  pipe_->Listen("", "Target.detachedFromTarget", HearAs("detached"));
  pipe_->Call({"A.a", Json::object(), "S"},
              [this](const absl::StatusOr<Json>&) { pipe_ = nullptr; });

  Send(R"({"method":"Target.detachedFromTarget","params":{"sessionId":"S"}})");

  EXPECT_THAT(log_, IsEmpty());
}

TEST_F(DevToolsPipeTest, TimeOutMayDestroyThePipe) {
  pipe_->Call({"A.a", Json::object(), "", absl::Seconds(1)},
              [this](const absl::StatusOr<Json>&) { pipe_ = nullptr; });
  Call("B.b");

  clock_.Advance(absl::Seconds(1));
  RunAll();

  EXPECT_THAT(log_, ElementsAre("B.b UNAVAILABLE"));
}

}  // namespace
}  // namespace varnic::host
