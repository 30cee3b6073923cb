// The gate before the requests of the real Chromium of the system.

#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/time/clock.h"
#include "core/common/rpc/stream/profile_streams_test_support.h"
#include "core/common/rpc/testing/fake_scheduler.h"
#include "core/host/browser/browser_keeper.h"
#include "core/host/browser/request_gate.h"
#include "core/host/browser/testing/page_server.h"
#include "core/host/browser/testing/scoped_variable.h"
#include "core/host/testing/temporary_folder.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using Json = nlohmann::json;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using testing::PageServer;
using testing::ScopedVariable;
using testing::TemporaryFolder;
using varnic::testing::AuthenticationStream;
using varnic::testing::FakeScheduler;
using varnic::testing::FileAccessStream;
using varnic::testing::Profile;
using varnic::testing::ProfileStreamsTest;
using varnic::testing::ServedStream;

constexpr char kChromium[] = "/usr/bin/chromium";

std::map<std::string, std::string> Pages() {
  return {{"/plain", "<title>plain</title>"},
          {"/login/page", "welcome"},
          {"/worker", "<script>new SharedWorker('/shared.js')</script>"},
          {"/shared.js", "fetch('/login/from-worker')"}};
}

class RequestGateChromiumTest : public ProfileStreamsTest, public BrowserKeeper::Visitor {
 protected:
  void SetUp() override {
    if (::access(kChromium, X_OK) != 0) {
      GTEST_SKIP() << kChromium << " is not installed: install Debian's package chromium";
    }
    for (const char* name : {"data", "home", "tmp"}) {
      std::filesystem::create_directory(folder_.Path(name));
    }
    BrowserKeeperOptions options;
    options.process.launch.program = kChromium;
    options.process.launch.user_data_dir = folder_.Path("data");
    options.process.launch.without_sandbox = ::geteuid() == 0;
    keeper_ = std::make_unique<BrowserKeeper>(loop_, *files_, std::move(options), *this);
    bool is_ready = false;
    keeper_->Get([&](const absl::StatusOr<DevToolsPipe*>& got) {
      EXPECT_TRUE(got.ok()) << got.status();
      is_ready = true;
    });
    WaitFor([&] { return is_ready; });
    ASSERT_NE(gate_, nullptr);
    std::optional<absl::Status> started;
    gate_->Start([&started](const absl::Status& status) { started = status; });
    WaitFor([&] { return started.has_value(); });
    session_ = OpenPage("");
  }
  void TearDown() override {
    if (keeper_ == nullptr) return;
    bool is_closed = false;
    keeper_->Close([&is_closed] { is_closed = true; });
    WaitFor([&] { return is_closed; });
    keeper_ = nullptr;
    files_ = nullptr;
    while (loop_.RunPending() != 0) continue;
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
  }

  void OnBrowserUp(DevToolsPipe& devtools, const RunningBrowser&) override {
    devtools_ = &devtools;
    gate_ =
        std::make_unique<RequestGate>(devtools, *files_, asker_, [](const std::string& context) {
          return std::vector<ProfileId>{Profile(context.empty() ? "profile" : "incognito")};
        });
  }
  void OnBrowserGone(const absl::Status&) override { gate_ = nullptr; }

  // Runs the loop and answers questions until `condition` holds. No time passes for them.
  void WaitFor(const std::function<bool()>& condition) {
    net::Timer tick(loop_);
    const absl::Time deadline = absl::Now() + absl::Seconds(30);
    std::function<void()> again = [&] { tick.Start(absl::Milliseconds(5), again); };
    again();
    loop_.RunUntil([&] {
      scheduler_.RunPosted();
      HearQuestions();
      return condition() || absl::Now() > deadline;
    });
    EXPECT_TRUE(condition());
  }
  // Does what time does, a second each turn, until `condition` holds.
  void LetTimePassUntil(const std::function<bool()>& condition) {
    WaitFor([&] {
      scheduler_.Advance(absl::Seconds(1));
      return condition();
    });
  }

  void HearQuestions() {
    for (const auto& sent = file_client_.recording().sent(); files_heard_ < sent.size();) {
      rpc::CanAccessFile message;
      EXPECT_TRUE(message.ParseFromString(sent[files_heard_++].payload()));
      OnFileMessage(std::move(message));
    }
    for (const auto& sent = login_client_.recording().sent(); logins_heard_ < sent.size();) {
      rpc::Authenticate message;
      EXPECT_TRUE(message.ParseFromString(sent[logins_heard_++].payload()));
      OnLoginMessage(std::move(message));
    }
  }
  void OnFileMessage(rpc::CanAccessFile message) {
    if (!message.error().empty()) return log_.push_back(message.error());
    const auto& request = message.request();
    const std::string name = std::filesystem::path(request.path()).filename();
    log_.push_back(rpc::CanAccessFile::Access_Name(request.access()) + " " + name + " " +
                   request.origin());
    if (may_read_ == nullptr) return;
    message.mutable_response()->set_allow(may_read_(name));
    file_client_.Receive(message, message.call_id());
  }
  void OnLoginMessage(rpc::Authenticate message) {
    if (!message.error().empty()) return log_.push_back(message.error());
    const auto& request = message.request();
    log_.push_back(message.profile_id().value() + " " + request.scheme() + " " + request.realm() +
                   (request.first_attempt() ? " first" : " again"));
    if (!password_) return;
    message.mutable_response()->set_username("ann");
    message.mutable_response()->set_password(*password_);
    message.mutable_response()->set_cancel(password_->empty());
    login_client_.Receive(message, message.call_id());
  }
  template <class T>
  static void Subscribe(ServedStream<CallbackStream<T>>& client, const std::string& key) {
    T message;
    *message.mutable_profile_id() = Profile(key);
    message.set_subscribe(true);
    client.Receive(message);
  }

  Json Call(DevToolsCommand command) {
    std::optional<absl::StatusOr<Json>> answer;
    devtools_->Call(std::move(command), [&](absl::StatusOr<Json> result) { answer = result; });
    WaitFor([&] { return answer.has_value(); });
    EXPECT_TRUE(answer->ok()) << answer->status();
    return answer->ok() ? **answer : Json::object();
  }
  // Does not wait: the page may.
  void Send(DevToolsCommand command) {
    devtools_->Call(std::move(command), [](const absl::StatusOr<Json>&) {});
  }
  // The session of a new page.
  std::string OpenPage(const std::string& context) {
    Json params = {{"url", "about:blank"}, {"newWindow", true}};
    if (!context.empty()) params["browserContextId"] = context;
    target_ = Call({"Target.createTarget", params})["targetId"];
    const Json attached =
        Call({"Target.attachToTarget", {{"targetId", target_}, {"flatten", true}}});
    gate_->OnPageAttached(attached["sessionId"], target_, context);
    return attached["sessionId"];
  }
  // How the navigation ended: its error, or what the page shows.
  std::string Visit(const std::string& url) {
    const Json answer = Call({"Page.navigate", {{"url", url}}, session_});
    if (answer.contains("errorText")) return answer["errorText"];
    return Evaluate(
        "new Promise(done => document.readyState === 'complete' ? done() : (onload = done))"
        ".then(() => document.body.innerText)");
  }
  std::string Evaluate(const std::string& script) {
    const Json answer =
        Call({"Runtime.evaluate", {{"expression", script}, {"awaitPromise", true}}, session_});
    return answer.value("result", Json::object()).value("value", "");
  }
  void WaitForScript(const std::string& script, const std::string& result) {
    const absl::Time deadline = absl::Now() + absl::Seconds(60);
    while (Evaluate(script) != result && absl::Now() < deadline) continue;
    EXPECT_EQ(Evaluate(script), result);
  }
  std::string WriteFile(const std::string& name, const std::string& text) {
    std::ofstream(folder_.Path(name)) << text;
    return "file://" + folder_.Path(name);
  }

  TemporaryFolder folder_;
  const ScopedVariable home_{"HOME", folder_.Path("home")};
  const ScopedVariable temporary_{"TMPDIR", folder_.Path("tmp")};
  PageServer server_{Pages()};
  net::EventLoop loop_;
  FakeScheduler scheduler_;
  std::unique_ptr<TaskThread> files_ = std::make_unique<TaskThread>(
      [this](std::function<void()> function) { loop_.Post(std::move(function)); });
  QuestionAsker asker_{scheduler_, {absl::Hours(1)}};
  ServedStream<FileAccessStream> file_client_{service_};
  ServedStream<AuthenticationStream> login_client_{service_};
  size_t files_heard_ = 0;
  size_t logins_heard_ = 0;
  std::vector<std::string> log_;                           // The questions.
  std::function<bool(const std::string& name)> may_read_;  // Null: no answer.
  std::optional<std::string> password_;                    // Empty: cancel; none: no answer.
  DevToolsPipe* devtools_ = nullptr;
  std::unique_ptr<RequestGate> gate_;
  std::unique_ptr<BrowserKeeper> keeper_;
  std::string target_;
  std::string session_;
};

TEST_F(RequestGateChromiumTest, FilesAreShownOrNotAsTheClientSays) {
  Subscribe(file_client_, "profile");
  may_read_ = [](const std::string& name) { return name != "secret.txt"; };

  EXPECT_EQ(Visit(WriteFile("open.txt", "hello")), "hello");
  EXPECT_EQ(Visit(WriteFile("secret.txt", "hidden")), "net::ERR_ACCESS_DENIED");
  EXPECT_EQ(Visit("view-source:" + WriteFile("secret.txt", "hidden")), "net::ERR_ACCESS_DENIED");
  EXPECT_EQ(Visit("file:///etc%2Fhostname"), "net::ERR_ACCESS_DENIED");

  EXPECT_THAT(log_,
              ElementsAre("READ open.txt null", "READ secret.txt null", "READ secret.txt null"));
}

TEST_F(RequestGateChromiumTest, FolderIsListed) {
  Subscribe(file_client_, "profile");
  may_read_ = [](const std::string&) { return true; };
  std::filesystem::create_directory(folder_.Path("folder"));
  WriteFile("folder/inside.txt", "");

  EXPECT_THAT(Visit("file://" + folder_.Path("folder") + "/"), HasSubstr("inside.txt"));

  EXPECT_THAT(log_, ElementsAre("LIST folder null"));
}

TEST_F(RequestGateChromiumTest, PageAsksForWhatIsInIt) {
  Subscribe(file_client_, "profile");
  may_read_ = [](const std::string& name) { return name != "image.svg"; };
  WriteFile("image.svg", "<svg xmlns='http://www.w3.org/2000/svg' width='1' height='1'/>");
  WriteFile("frame.html", "<script>parent.postMessage('frame', '*')</script>");

  Visit(WriteFile("page.html",
                  "<script>var log = []; onmessage = event => log.push(event.data);</script>"
                  "<img src=image.svg onerror='log.push(\"no image\")'><iframe src=frame.html>"));
  WaitForScript("String(log.length)", "2");

  EXPECT_EQ(Evaluate("log.sort().join()"), "frame,no image");
  EXPECT_THAT(log_, ::testing::UnorderedElementsAre("READ page.html null", "READ image.svg file://",
                                                    "READ frame.html file://"));
}

TEST_F(RequestGateChromiumTest, PageOfTheNetworkCannotEvenAsk) {
  Subscribe(file_client_, "profile");
  may_read_ = [](const std::string&) { return true; };
  Visit(server_.Url("/plain"));

  EXPECT_EQ(Evaluate("fetch('file:///etc/hostname').then(() => 'read', () => 'not read')"),
            "not read");

  EXPECT_TRUE(log_.empty());
}

TEST_F(RequestGateChromiumTest, LoginIsAnsweredOnce) {
  Subscribe(login_client_, "profile");
  password_ = "secret";

  EXPECT_EQ(Visit(server_.Url("/login/page")), "welcome");
  EXPECT_EQ(Visit(server_.Url("/login/page")), "welcome");

  EXPECT_THAT(log_, ElementsAre("profile basic R first"));
}

TEST_F(RequestGateChromiumTest, WrongPasswordIsAskedForAgainSoOften) {
  Subscribe(login_client_, "profile");
  password_ = "wrong";

  EXPECT_EQ(Visit(server_.Url("/login/page")), "denied");

  EXPECT_THAT(
      log_, ElementsAre("profile basic R first", "profile basic R again", "profile basic R again"));
}

TEST_F(RequestGateChromiumTest, WithoutALoginThePageIsWhatTheServerSent) {
  EXPECT_EQ(Visit(server_.Url("/login/page")), "denied");
  EXPECT_EQ(Evaluate("fetch('/login/more').then(answer => String(answer.status))"), "401");
  Subscribe(login_client_, "profile");
  password_ = "";
  EXPECT_EQ(Visit(server_.Url("/login/page")), "denied");

  EXPECT_THAT(log_, ElementsAre("profile basic R first"));
}

TEST_F(RequestGateChromiumTest, SlowClientIsNotWaitedFor) {
  Subscribe(login_client_, "profile");
  std::optional<Json> answer;
  devtools_->Call({"Page.navigate", {{"url", server_.Url("/login/page")}}, session_},
                  [&answer](const absl::StatusOr<Json>& result) { answer = result.value_or(""); });
  WaitFor([this] { return log_.size() == 1; });

  scheduler_.Advance(absl::Hours(1));
  WaitFor([&answer] { return answer.has_value(); });

  EXPECT_EQ(Evaluate("document.body.innerText"), "denied");
}

TEST_F(RequestGateChromiumTest, ClosedPageWithdrawsItsQuestions) {
  Subscribe(file_client_, "profile");
  Send({"Page.navigate", {{"url", WriteFile("a", "")}}, session_});
  WaitFor([this] { return log_.size() == 1; });

  Call({"Target.closeTarget", {{"targetId", target_}}});
  LetTimePassUntil([this] { return asker_.open_questions() == 0; });
  WaitFor([this] { return log_.size() == 2; });

  EXPECT_THAT(log_, ElementsAre("READ a null", "withdrawn"));
}

TEST_F(RequestGateChromiumTest, RequestThatIsGivenUpWithdrawsItsQuestion) {
  Subscribe(login_client_, "profile");
  Visit(server_.Url("/plain"));
  Evaluate(
      "window.stop = new AbortController(); "
      "fetch('/login/page', {signal: stop.signal}).catch(() => 0); ''");
  WaitFor([this] { return log_.size() == 1; });
  scheduler_.Advance(absl::Seconds(1));
  EXPECT_EQ(Evaluate("'still there'"), "still there");
  EXPECT_EQ(asker_.open_questions(), 1u);

  Evaluate("stop.abort(); ''");
  LetTimePassUntil([this] { return asker_.open_questions() == 0; });
  WaitFor([this] { return log_.size() == 2; });

  EXPECT_THAT(log_, ElementsAre("profile basic R first", "withdrawn"));
}

TEST_F(RequestGateChromiumTest, NavigationElsewhereWithdrawsTheQuestion) {
  Subscribe(file_client_, "profile");
  Send({"Page.navigate", {{"url", WriteFile("a", "")}}, session_});
  WaitFor([this] { return log_.size() == 1; });

  Visit(server_.Url("/plain"));
  WaitFor([this] { return log_.size() == 2; });

  EXPECT_THAT(log_, ElementsAre("READ a null", "withdrawn"));
}

TEST_F(RequestGateChromiumTest, WorkerAsksForItsOwnProfile) {
  Subscribe(login_client_, "profile");
  Subscribe(login_client_, "incognito");
  password_ = "";
  Visit(server_.Url("/worker"));
  WaitFor([this] { return log_.size() == 1; });

  session_ = OpenPage(Call({"Target.createBrowserContext"})["browserContextId"]);
  Visit(server_.Url("/worker"));
  WaitFor([this] { return log_.size() == 2; });

  EXPECT_THAT(log_, ElementsAre("profile basic R first", "incognito basic R first"));
}

// What is uploaded is in the event of its request.
TEST_F(RequestGateChromiumTest, LongUploadPassesAndTheBrowserLives) {
  Visit(server_.Url("/plain"));

  EXPECT_EQ(Evaluate("fetch('/plain?upload', {method: 'POST', body: 'a'.repeat(20 << 20)})"
                     ".catch(() => 0).then(() => 'ended')"),
            "ended");

  EXPECT_TRUE(server_.WasAsked("/plain?upload"));
  EXPECT_EQ(Visit(server_.Url("/plain")), "");
}

// It is in the event of its navigation.
TEST_F(RequestGateChromiumTest, LongNameOfAFrameIsNoTrouble) {
  Visit(server_.Url("/plain"));

  EXPECT_EQ(Evaluate("new Promise(done => { const frame = document.createElement('iframe'); "
                     "frame.name = 'n'.repeat(40 << 20); frame.onload = () => done('loaded'); "
                     "frame.src = '/plain?frame'; document.body.append(frame); })"),
            "loaded");

  EXPECT_EQ(Visit(server_.Url("/plain")), "");
}

TEST_F(RequestGateChromiumTest, FloodOfRequestsIsAnsweredToItsEnd) {
  Subscribe(login_client_, "profile");
  Visit(server_.Url("/plain"));

  Evaluate(
      "window.left = 3000; for (let i = 0; i < 3000; ++i) fetch('data:,').then("
      "() => fetch('http://127.0.0.1:1/' + i)).catch(() => 0).finally(() => { --left; }); ''");
  WaitForScript("String(left)", "0");

  EXPECT_EQ(Visit(server_.Url("/plain")), "");
}

}  // namespace
}  // namespace varnic::host
