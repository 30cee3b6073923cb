#include "tests/programs/two_services.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "absl/strings/str_cat.h"
#include "core/client/client.h"
#include "download.client.h"
#include "rpc/profile/profile.client.h"

namespace varnic {
namespace {

using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

constexpr absl::Duration kTimeout = absl::Seconds(30);

// One server with both services, and one connection with a generated client of each.
class TwoServicesTest : public ::testing::Test {
 protected:
  TwoServicesTest() {
    profile_.set_value("P");
    const auto address = server_.Listen("127.0.0.1:0");
    EXPECT_TRUE(address.ok()) << address.status();
    client_.emplace(loop_, *address);
    profiles_.emplace(*client_);
    downloads_.emplace(*client_);
    thread_ = std::thread([this] { server_.Run(); });
  }
  ~TwoServicesTest() override {
    server_.Post([this] { server_.Stop(); });
    thread_.join();
  }

  // Starts a download of the profile.
  download::DownloadId Start() {
    download::StartRequest request;
    *request.mutable_profile_id() = profile_;
    const auto id = downloads_->StartAndWait(request, kTimeout);
    EXPECT_TRUE(id.ok()) << id.status();
    return id.value_or(download::DownloadId());
  }

  StreamListeners CountUps() {
    StreamListeners listeners;
    listeners.on_up = [this] { ++ups_; };
    return listeners;
  }

  auto SubscribeToNetwork() {
    auto events = profiles_->WhenNetworkChanged(
        [this](const rpc::NetworkChanged& event) {
          happened_.push_back(event.online() ? "online" : "offline");
        },
        CountUps());
    events->Subscribe(profile_);
    return events;
  }

  auto SubscribeToProgress() {
    auto events = downloads_->WhenProgressed(
        [this](const download::Progress& progress) {
          happened_.push_back(download::Progress::State_Name(progress.state()));
        },
        CountUps());
    events->Subscribe(profile_);
    return events;
  }

  auto AllowFiles() {
    auto answers = profiles_->OnCanAccessFile(
        [this](CallbackQuestion<rpc::CanAccessFile> question) {
          happened_.push_back(absl::StrCat("read ", question.request().path()));
          rpc::CanAccessFile::Response answer;
          answer.set_allow(true);
          question.Answer(answer);
        },
        CountUps());
    answers->Subscribe(profile_);
    return answers;
  }

  auto KeepFiles() {
    auto answers = downloads_->OnKeepDangerousFile(
        [this](CallbackQuestion<download::KeepDangerousFile> question) {
          happened_.push_back(absl::StrCat("keep ", question.request().file_name()));
          download::KeepDangerousFile::Response answer;
          answer.set_keep(true);
          question.Answer(answer);
        },
        CountUps());
    answers->Subscribe(profile_);
    return answers;
  }

  void WaitForUps(int count) {
    loop_.RunUntil([&] { return ups_ == count; });
  }
  void WaitForHappened(std::size_t count) {
    loop_.RunUntil([&] { return happened_.size() == count; });
  }

  ProfileId profile_;
  RpcServer server_;
  TwoServices services_{server_};
  std::thread thread_;
  net::EventLoop loop_;
  std::optional<Client> client_;
  std::optional<rpc::ProfileClient> profiles_;
  std::optional<download::DownloadsClient> downloads_;
  int ups_ = 0;
  std::vector<std::string> happened_;  // What the streams brought, in its order.
};

TEST_F(TwoServicesTest, CallsReachTheServiceThatTheyName) {
  const auto subscribers = profiles_->NameAndWait(profile_, kTimeout);
  const auto first = Start();
  const auto second = Start();
  const auto paused = downloads_->PauseAndWait(second, kTimeout);

  ASSERT_TRUE(subscribers.ok()) << subscribers.status();
  EXPECT_EQ(subscribers->value(), "0");
  EXPECT_EQ(first.value(), 1);
  EXPECT_EQ(second.value(), 2);
  EXPECT_TRUE(paused.ok()) << paused.status();
}

TEST_F(TwoServicesTest, StatusOfOneServiceReachesItsCallerAlone) {
  download::DownloadId nothing;

  const auto paused = downloads_->PauseAndWait(nothing, kTimeout);
  const auto subscribers = profiles_->NameAndWait(profile_, kTimeout);

  EXPECT_EQ(paused.status(), absl::NotFoundError("No such download"));
  EXPECT_TRUE(subscribers.ok()) << subscribers.status();
}

TEST_F(TwoServicesTest, EventsOfOneProfileStayApart) {
  const auto network = SubscribeToNetwork();
  const auto progress = SubscribeToProgress();
  WaitForUps(2);

  const auto subscribers = profiles_->NameAndWait(profile_, kTimeout);
  WaitForHappened(1);
  (void)downloads_->PauseAndWait(Start(), kTimeout);
  WaitForHappened(3);

  ASSERT_TRUE(subscribers.ok()) << subscribers.status();
  EXPECT_EQ(subscribers->value(), "1");
  EXPECT_THAT(happened_, ElementsAre("online", "RUNNING", "PAUSED"));
}

TEST_F(TwoServicesTest, QuestionsAboutOneProfileStayApart) {
  const auto files = AllowFiles();
  const auto dangers = KeepFiles();
  const auto progress = SubscribeToProgress();
  WaitForUps(3);

  const auto path = profiles_->PathAndWait(profile_, kTimeout);
  const auto resumed = downloads_->ResumeAndWait(Start(), kTimeout);
  WaitForHappened(4);

  ASSERT_TRUE(path.ok()) << path.status();
  EXPECT_EQ(path->value(), "allowed");
  EXPECT_TRUE(resumed.ok()) << resumed.status();
  EXPECT_THAT(happened_,
              UnorderedElementsAre("read /etc/motd", "RUNNING", "keep setup.exe", "COMPLETE"));
}

TEST_F(TwoServicesTest, WhoAnswersForOneServiceIsNotAskedByTheOther) {
  const auto files = AllowFiles();
  WaitForUps(1);

  const auto resumed = downloads_->ResumeAndWait(Start(), kTimeout);

  EXPECT_EQ(resumed.status().code(), absl::StatusCode::kNotFound);
  EXPECT_THAT(happened_, ElementsAre());
}

}  // namespace
}  // namespace varnic
