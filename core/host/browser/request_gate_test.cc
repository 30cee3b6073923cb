#include "core/host/browser/request_gate.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/strings/str_cat.h"
#include "core/common/rpc/stream/profile_streams_test_support.h"
#include "core/common/rpc/testing/fake_scheduler.h"
#include "core/host/browser/testing/scripted_browser.h"
#include "core/host/testing/temporary_folder.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using Json = nlohmann::json;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::ScriptedBrowser;
using testing::TemporaryFolder;
using varnic::testing::AuthenticationStream;
using varnic::testing::FakeScheduler;
using varnic::testing::FileAccessStream;
using varnic::testing::Profile;
using varnic::testing::ProfileStreamsTest;
using varnic::testing::ServedStream;

// A browser with one page, whose session and main frame are "S" and "main", and a client that
// answers for the profile.
class RequestGateTest : public ProfileStreamsTest {
 protected:
  RequestGateTest() { Open({}); }

  void Open(const QuestionOptions& options) {
    gate_ = nullptr;
    asker_ = nullptr;
    browser_ = std::make_unique<ScriptedBrowser>(loop_);
    asker_ = std::make_unique<QuestionAsker>(scheduler_, options);
    gate_ = std::make_unique<RequestGate>(
        browser_->pipe(), files_, *asker_, [](const std::string& context) {
          return std::vector<ProfileId>{Profile(context.empty() ? "profile" : context)};
        });
    gate_->Start([this](const absl::Status& status) { started_ = status; });
    browser_->Answer(browser_->TakeCommands().at(0), Json::object());
    gate_->OnPageAttached("S", "main", "");
    browser_->TakeCommands();
  }
  template <class Stream>
  static void Subscribe(ServedStream<Stream>& stream, const std::string& key) {
    stream.Receive(Subscription<Stream>::Of(key));
  }

  void RequestFile(const std::string& request_id, const std::string& url,
                   const std::string& frame_id = "main", const std::string& type = "Document") {
    browser_->Happen("Fetch.requestPaused", {{"requestId", request_id},
                                             {"request", {{"url", url}}},
                                             {"frameId", frame_id},
                                             {"resourceType", type}});
  }
  void Challenge(const std::string& request_id, const std::string& frame_id = "main",
                 const std::string& source = "Server") {
    browser_->Happen("Fetch.authRequired", {{"requestId", request_id},
                                            {"request", {{"url", "http://a.example/x"}}},
                                            {"frameId", frame_id},
                                            {"resourceType", "Document"},
                                            {"authChallenge",
                                             {{"source", source},
                                              {"origin", "http://a.example"},
                                              {"scheme", "Basic"},
                                              {"realm", "R"}}}});
  }
  void NavigatePage(const std::string& origin) {
    browser_->Happen("Page.frameNavigated",
                     {{"frame", {{"id", "main"}, {"securityOrigin", origin}}}}, "S");
  }

  // Lets the files thread and the scheduler do what they have.
  void RunUntilSent(const std::function<bool()>& is_done) {
    loop_.RunUntil([&] {
      scheduler_.RunPosted();
      Listen();
      return is_done();
    });
  }
  // Plays the page's process, and keeps what else the browser is told.
  void Listen() {
    for (const Json& command : browser_->TakeCommands()) {
      if (command["method"] == "Runtime.getIsolateId") {
        browser_->Answer(command, Json::object());
      } else {
        replies_.push_back(command["method"].get<std::string>() + " " +
                           command["params"].value("requestId", ""));
      }
    }
  }
  // The questions that the clients get, once there are so many.
  std::vector<rpc::CanAccessFile> Questions(size_t count) {
    RunUntilSent([&] { return client_.recording().sent().size() >= count; });
    return Parse<rpc::CanAccessFile>(client_.recording());
  }
  std::vector<rpc::Authenticate> LoginQuestions() {
    scheduler_.RunPosted();
    return Parse<rpc::Authenticate>(login_client_.recording());
  }
  template <class T>
  static std::vector<T> Parse(const varnic::testing::RecordingChannel& recording) {
    std::vector<T> messages(recording.sent().size());
    for (size_t i = 0; i < messages.size(); ++i) {
      EXPECT_TRUE(messages[i].ParseFromString(recording.sent()[i].payload()));
    }
    return messages;
  }
  template <class T>
  static T AnswerTo(const T& question) {
    T answer;
    *answer.mutable_profile_id() = question.profile_id();
    answer.set_call_id(question.call_id());
    answer.mutable_response();
    return answer;
  }
  void Allow(const rpc::CanAccessFile& question, bool allow) {
    rpc::CanAccessFile answer = AnswerTo(question);
    answer.mutable_response()->set_allow(allow);
    client_.Receive(answer, answer.call_id());
  }
  void LogIn(const rpc::Authenticate& question) {
    rpc::Authenticate answer = AnswerTo(question);
    answer.mutable_response()->set_username("ann");
    answer.mutable_response()->set_password("secret");
    login_client_.Receive(answer, answer.call_id());
  }
  // What the browser is told next, once it is told something.
  std::vector<std::string> NextReplies() {
    RunUntilSent([&] { return !replies_.empty(); });
    return std::exchange(replies_, {});
  }

  template <class Stream>
  struct Subscription;

  net::EventLoop loop_;
  FakeScheduler scheduler_;
  TaskThread files_{[this](std::function<void()> task) { loop_.Post(std::move(task)); }};
  std::unique_ptr<ScriptedBrowser> browser_;
  std::unique_ptr<QuestionAsker> asker_;
  std::optional<absl::Status> started_;
  std::vector<std::string> replies_;
  ServedStream<FileAccessStream> client_{service_};
  ServedStream<AuthenticationStream> login_client_{service_};
  std::unique_ptr<RequestGate> gate_;
};

template <class T>
struct RequestGateTest::Subscription<CallbackStream<T>> {
  static T Of(const std::string& key) {
    T message;
    *message.mutable_profile_id() = Profile(key);
    message.set_subscribe(true);
    return message;
  }
};

TEST_F(RequestGateTest, StartPausesFilesAndTheNetwork) {
  ScriptedBrowser browser(loop_);
  RequestGate gate(browser.pipe(), files_, *asker_, nullptr);

  gate.Start([](const absl::Status&) {});

  const std::vector<Json> commands = browser.TakeCommands();
  ASSERT_EQ(commands.size(), 1u);
  EXPECT_EQ(commands[0]["method"], "Fetch.enable");
  EXPECT_EQ(commands[0]["params"], Json::parse(R"({"handleAuthRequests":true,
      "patterns":[{"urlPattern":"file://*"},{"urlPattern":"http*://*"}]})"));
  EXPECT_EQ(started_, absl::OkStatus());
}

TEST_F(RequestGateTest, StartTellsOfAFailure) {
  ScriptedBrowser browser(loop_);
  RequestGate gate(browser.pipe(), files_, *asker_, nullptr);
  std::optional<absl::Status> started;

  gate.Start([&started](const absl::Status& status) { started = status; });
  browser.Refuse(browser.TakeCommands()[0], -32601, "no such method");

  EXPECT_TRUE(started.has_value() && !started->ok());
}

TEST_F(RequestGateTest, NetworkPassesAtOnce) {
  RequestFile("R", "https://a.example/");

  EXPECT_THAT(browser_->TakeRequests(), ElementsAre("Fetch.continueRequest R"));
}

TEST_F(RequestGateTest, RequestWithoutAUrlDoesNotPass) {
  browser_->Happen("Fetch.requestPaused", {{"requestId", "R"}, {"request", Json::object()}});

  EXPECT_THAT(browser_->TakeRequests(), ElementsAre("Fetch.failRequest R"));
}

TEST_F(RequestGateTest, HeadersOfTheNetworkCanBeReplaced) {
  gate_->OverrideHeaders({{"sec-ch-ua", "ours"}});

  browser_->Happen("Fetch.requestPaused",
                   {{"requestId", "R"},
                    {"request", {{"url", "http://a/"}, {"headers", {{"sec-ch-ua", "theirs"}}}}},
                    {"frameId", "main"}});

  const std::vector<Json> commands = browser_->TakeCommands();
  ASSERT_EQ(commands.size(), 1u);
  EXPECT_EQ(commands[0]["params"]["headers"][0]["value"], "ours");
}

TEST_F(RequestGateTest, FileIsAskedAboutAndAllowed) {
  const TemporaryFolder folder;
  Subscribe(client_, "profile");

  RequestFile("R", "file://localhost" + folder.path() + "/a%20b?x");
  const std::vector<rpc::CanAccessFile> questions = Questions(1);

  ASSERT_EQ(questions.size(), 1u);
  EXPECT_EQ(questions[0].request().path(), folder.path() + "/a b");
  EXPECT_EQ(questions[0].request().access(), rpc::CanAccessFile::READ);
  EXPECT_EQ(questions[0].request().origin(), "null");
  EXPECT_THAT(browser_->TakeRequests(), IsEmpty());
  Allow(questions[0], true);
  EXPECT_THAT(browser_->TakeRequests(), ElementsAre("Fetch.continueRequest R"));
}

TEST_F(RequestGateTest, RefusedFileIsAnErrorOfThePage) {
  Subscribe(client_, "profile");
  RequestFile("R", "file:///etc/shadow");

  Allow(Questions(1)[0], false);

  const std::vector<Json> commands = browser_->TakeCommands();
  ASSERT_EQ(commands.size(), 1u);
  EXPECT_EQ(commands[0]["method"], "Fetch.failRequest");
  EXPECT_EQ(commands[0]["params"]["errorReason"], "AccessDenied");
}

TEST_F(RequestGateTest, FolderIsToBeListed) {
  const TemporaryFolder folder;
  Subscribe(client_, "profile");

  RequestFile("R", "file://" + folder.path() + "/");

  EXPECT_EQ(Questions(1)[0].request().access(), rpc::CanAccessFile::LIST);
  EXPECT_EQ(Questions(1)[0].request().path(), folder.path());
}

TEST_F(RequestGateTest, PageThatShowsAFileAsksForWhatIsInIt) {
  Subscribe(client_, "profile");
  NavigatePage("file://");

  RequestFile("R", "file:///a.png", "main", "Image");

  EXPECT_EQ(Questions(1)[0].request().origin(), "file://");
}

TEST_F(RequestGateTest, PageMayTellWhatItShowsAfterItHasAsked) {
  Subscribe(client_, "profile");
  RequestFile("R", "file:///a.png", "main", "Image");
  std::vector<Json> commands;
  loop_.RunUntil([&] {
    commands = browser_->TakeCommands();
    return !commands.empty();
  });
  ASSERT_EQ(commands[0]["method"], "Runtime.getIsolateId");

  NavigatePage("file://");
  browser_->Answer(commands[0], Json::object());

  EXPECT_EQ(Questions(1)[0].request().origin(), "file://");
}

TEST_F(RequestGateTest, FrameInsideAPageBelongsToItsProfile) {
  Subscribe(client_, "incognito");
  gate_->OnPageAttached("T", "other", "incognito");
  browser_->Happen("Page.frameAttached", {{"frameId", "inner"}, {"parentFrameId", "other"}}, "T");

  RequestFile("R", "file:///a", "inner");

  EXPECT_EQ(Questions(1)[0].profile_id().value(), "incognito");
}

TEST_F(RequestGateTest, WhatCannotBeAFileHereIsRefusedWithoutAQuestion) {
  Subscribe(client_, "profile");

  RequestFile("1", "file://server/etc/passwd");
  RequestFile("2", "file:///etc%2Fpasswd");
  RequestFile("3", "file:///%FF");

  EXPECT_THAT(browser_->TakeRequests(),
              ElementsAre("Fetch.failRequest 1", "Fetch.failRequest 2", "Fetch.failRequest 3"));
}

TEST_F(RequestGateTest, NobodyAnsweringIsTheDefault) {
  RequestFile("R", "file:///etc/hosts");
  Challenge("Q");

  std::vector<std::string> replies = NextReplies();
  while (replies.size() < 2) {
    for (const std::string& reply : NextReplies()) replies.push_back(reply);
  }

  EXPECT_THAT(replies,
              ::testing::UnorderedElementsAre("Fetch.failRequest R", "Fetch.continueWithAuth Q"));
}

TEST_F(RequestGateTest, UnknownFrameIsLookedUpAsATarget) {
  Subscribe(login_client_, "context-1");
  Challenge("R", "worker");
  Json command = browser_->TakeCommands().at(0);
  ASSERT_EQ(command["method"], "Target.getTargetInfo");
  EXPECT_EQ(command["params"]["targetId"], "worker");

  browser_->Answer(command, {{"targetInfo", {{"browserContextId", "context-1"}}}});
  command = browser_->TakeCommands().at(0);
  ASSERT_EQ(command["method"], "Target.getBrowserContexts");
  browser_->Answer(command, {{"browserContextIds", {"context-0", "context-1"}}});

  EXPECT_EQ(LoginQuestions().size(), 1u);
}

TEST_F(RequestGateTest, WorkerOfThePersistentProfileIsKnownByItsContext) {
  Subscribe(login_client_, "profile");
  Challenge("R", "worker");

  browser_->Answer(browser_->TakeCommands().at(0),
                   {{"targetInfo", {{"browserContextId", "its-own"}}}});
  browser_->Answer(browser_->TakeCommands().at(0), {{"browserContextIds", {"context-0"}}});

  EXPECT_EQ(LoginQuestions().size(), 1u);
}

TEST_F(RequestGateTest, FrameThatNobodyKnowsGetsNothingWhenThereAreSeveralProfiles) {
  Open({absl::Seconds(30), true});
  RequestFile("R", "file:///etc/hosts", "unknown");
  browser_->Refuse(browser_->TakeCommands().at(0), -32602, "No target with given id found");

  browser_->Answer(browser_->TakeCommands().at(0), {{"browserContextIds", {"context-0"}}});

  EXPECT_THAT(browser_->TakeRequests(), ElementsAre("Fetch.failRequest R"));
}

TEST_F(RequestGateTest, FrameThatNobodyKnowsIsOfTheOnlyProfile) {
  Subscribe(client_, "profile");
  RequestFile("R", "file:///etc/hosts", "unknown");
  browser_->Refuse(browser_->TakeCommands().at(0), -32602, "No target with given id found");

  browser_->Answer(browser_->TakeCommands().at(0), {{"browserContextIds", Json::array()}});

  EXPECT_EQ(Questions(1).size(), 1u);
}

TEST_F(RequestGateTest, CredentialsAreHandedOver) {
  Subscribe(login_client_, "profile");
  Challenge("R");
  const std::vector<rpc::Authenticate> questions = LoginQuestions();
  ASSERT_EQ(questions.size(), 1u);
  EXPECT_EQ(questions[0].request().realm(), "R");
  EXPECT_TRUE(questions[0].request().first_attempt());

  LogIn(questions[0]);

  const std::vector<Json> commands = browser_->TakeCommands();
  ASSERT_EQ(commands.size(), 1u);
  EXPECT_EQ(commands[0]["params"]["authChallengeResponse"]["username"], "ann");
}

TEST_F(RequestGateTest, WrongCredentialsAreAskedForAgainSoOften) {
  Subscribe(login_client_, "profile");
  for (size_t attempt = 0; attempt < 3; ++attempt) {
    Challenge("R");
    ASSERT_EQ(LoginQuestions().size(), attempt + 1);
    EXPECT_EQ(LoginQuestions().back().request().first_attempt(), attempt == 0);
    LogIn(LoginQuestions().back());
  }
  browser_->TakeCommands();

  Challenge("R");

  EXPECT_EQ(LoginQuestions().size(), 3u);
  const std::vector<Json> commands = browser_->TakeCommands();
  ASSERT_EQ(commands.size(), 1u);
  EXPECT_EQ(commands[0]["params"]["authChallengeResponse"]["response"], "CancelAuth");
}

TEST_F(RequestGateTest, ProxyHasAttemptsOfItsOwn) {
  Subscribe(login_client_, "profile");
  Challenge("R", "main", "Proxy");
  LogIn(LoginQuestions().back());

  Challenge("R");

  EXPECT_TRUE(LoginQuestions().back().request().first_attempt());
  EXPECT_FALSE(LoginQuestions().back().request().is_proxy());
}

TEST_F(RequestGateTest, ClosedPageWithdrawsItsQuestions) {
  Subscribe(login_client_, "profile");
  Challenge("R");
  ASSERT_EQ(LoginQuestions().size(), 1u);

  gate_->OnPageDetached("S");

  ASSERT_EQ(LoginQuestions().size(), 2u);
  EXPECT_EQ(LoginQuestions()[1].error(), "withdrawn");
  EXPECT_EQ(asker_->open_questions(), 0u);
}

TEST_F(RequestGateTest, RemovedFrameWithdrawsItsQuestionsAndASwappedOneDoesNot) {
  Subscribe(login_client_, "profile");
  browser_->Happen("Page.frameAttached", {{"frameId", "inner"}, {"parentFrameId", "main"}}, "S");
  Challenge("R", "inner");
  ASSERT_EQ(LoginQuestions().size(), 1u);

  browser_->Happen("Page.frameDetached", {{"frameId", "inner"}, {"reason", "swap"}}, "S");
  EXPECT_EQ(asker_->open_questions(), 1u);
  browser_->Happen("Page.frameDetached", {{"frameId", "inner"}, {"reason", "remove"}}, "S");

  EXPECT_EQ(asker_->open_questions(), 0u);
}

TEST_F(RequestGateTest, NavigationElsewhereWithdrawsWhatIsGone) {
  Subscribe(login_client_, "profile");
  Challenge("R");
  ASSERT_EQ(LoginQuestions().size(), 1u);

  NavigatePage("https://b.example");
  const std::vector<Json> commands = browser_->TakeCommands();
  ASSERT_EQ(commands.size(), 1u);
  EXPECT_EQ(asker_->open_questions(), 1u);
  browser_->Refuse(commands[0], -32602, "Invalid InterceptionId.");

  EXPECT_EQ(asker_->open_questions(), 0u);
}

TEST_F(RequestGateTest, DestroyedGateWithdrawsAndFailsWhatWaits) {
  Subscribe(client_, "profile");
  RequestFile("R", "file:///etc/hosts");
  ASSERT_EQ(Questions(1).size(), 1u);

  gate_ = nullptr;

  EXPECT_THAT(browser_->TakeRequests(), ElementsAre("Fetch.failRequest R"));
  EXPECT_EQ(asker_->open_questions(), 0u);
}

TEST_F(RequestGateTest, EndOfTheBrowserWithdrawsQuestions) {
  Subscribe(login_client_, "profile");
  Challenge("R");
  browser_->peer().Close();

  gate_ = nullptr;

  EXPECT_EQ(asker_->open_questions(), 0u);
}

TEST_F(RequestGateTest, RequestsOverTheLimitGetTheDefaultAtOnce) {
  QuestionOptions options;
  options.open_questions = 10;
  Open(options);
  Subscribe(login_client_, "profile");

  for (int i = 0; i < 1000; ++i) Challenge(absl::StrCat("R", i));

  EXPECT_EQ(browser_->TakeRequests().size(), 990u);
  EXPECT_EQ(LoginQuestions().size(), 10u);
}

TEST_F(RequestGateTest, OddEventsAreNoTrouble) {
  for (const char* method : {"Fetch.requestPaused", "Fetch.authRequired"}) {
    browser_->Happen(method, Json::object());
    browser_->Happen(method, {{"requestId", 7}, {"request", "x"}, {"frameId", nullptr}});
  }
  browser_->Happen("Page.frameAttached", {{"frameId", 7}}, "S");
  browser_->Happen("Page.frameNavigated", {{"frame", 7}}, "S");

  EXPECT_EQ(browser_->TakeRequests().size(), 4u);
}

}  // namespace
}  // namespace varnic::host
