#include "core/host/file_profiles.h"

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "absl/status/status.h"
#include "core/host/testing/post_queue.h"
#include "core/host/testing/temporary_folder.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using ::testing::HasSubstr;
using testing::PostQueue;
using testing::TemporaryFolder;

std::string MessageOf(const absl::Status& status) {
  return std::string(status.message());
}

class FileProfilesTest : public ::testing::Test {
 protected:
  FileProfilesTest() {
    folder_.Write("Local State", R"({"profile":{"last_used":"Other",)"
                                 R"("info_cache":{"Default":{"name":"Ada"},"Other":{}}}})");
    folder_.Write("Default/Preferences", "{}");
    folder_.Write("Other/Preferences", "{}");
    folder_.Write("Crashpad/settings.dat", "");
  }

  void MakeProfiles(FileProfilesOptions options = {}) {
    absl::StatusOr<UserDataDir> directory = UserDataDir::Open(folder_.path());
    ASSERT_TRUE(directory.ok()) << directory.status();
    profiles_ =
        std::make_unique<FileProfiles>(*std::move(directory), std::move(options), queue_.AsPost());
  }

  // What a call that is made with a reply is answered.
  template <class T>
  absl::StatusOr<T> Answer(const std::function<void(Reply<T>)>& call) {
    std::optional<absl::StatusOr<T>> answer;
    if (profiles_ == nullptr) MakeProfiles();
    call([&answer](absl::StatusOr<T> value) {
      EXPECT_FALSE(answer.has_value());
      answer = std::move(value);
    });
    queue_.RunNext();
    EXPECT_TRUE(answer.has_value());
    return *answer;
  }
  absl::StatusOr<UserAgent> GetUserAgent() {
    return Answer<UserAgent>([this](auto reply) { profiles_->GetUserAgent("", reply); });
  }

  // A program that answers to --version and counts its runs in the file "runs".
  std::string MakeBrowser() {
    const std::string path = folder_.Write(
        "browser",
        "#!/bin/sh\necho run >> \"${0%/*}/runs\"\necho Chromium 156.0.8078.79 built on Debian\n");
    EXPECT_EQ(::chmod(path.c_str(), 0755), 0);
    return path;
  }

  TemporaryFolder folder_;
  PostQueue queue_;
  std::unique_ptr<FileProfiles> profiles_;
};

TEST_F(FileProfilesTest, ListsTheDefaultProfileFirst) {
  const auto list =
      Answer<rpc::ProfileList>([this](auto reply) { profiles_->List(std::move(reply)); });

  ASSERT_TRUE(list.ok()) << list.status();
  ASSERT_EQ(list->profiles_size(), 2);
  EXPECT_EQ(list->profiles(0).id().value(), "Other");
  EXPECT_TRUE(list->profiles(0).is_default());
  EXPECT_EQ(list->profiles(1).id().value(), "Default");
  EXPECT_EQ(list->profiles(1).name(), "Ada");
  EXPECT_EQ(list->profiles(1).path(), folder_.Path("Default"));
  EXPECT_FALSE(list->profiles(1).is_default());
  EXPECT_FALSE(list->profiles(1).running());
}

TEST_F(FileProfilesTest, ListLeavesOutWhatNoIdCanName) {
  folder_.Write("\xff/Preferences", "{}");

  const auto list =
      Answer<rpc::ProfileList>([this](auto reply) { profiles_->List(std::move(reply)); });

  ASSERT_TRUE(list.ok()) << list.status();
  EXPECT_EQ(list->profiles_size(), 2);
}

TEST_F(FileProfilesTest, WhatNeedsABrowserSaysWhatToDo) {
  const auto made =
      Answer<rpc::ProfileInfo>([this](auto reply) { profiles_->CreateProfile("New", reply); });
  const auto deleted =
      Answer<Done>([this](auto reply) { profiles_->DeleteProfile("Other", reply); });
  const auto closed = Answer<Done>([this](auto reply) { profiles_->CloseBrowser(1, reply); });
  const auto opened = Answer<int64_t>(
      [this](auto reply) { profiles_->CreateBrowser(rpc::BrowserOptions(), reply); });

  for (const absl::Status& status :
       {made.status(), deleted.status(), closed.status(), opened.status()}) {
    EXPECT_TRUE(absl::IsFailedPrecondition(status)) << status;
  }
  EXPECT_THAT(MessageOf(made.status()), HasSubstr("make the profile in the browser"));
  EXPECT_THAT(MessageOf(opened.status()), HasSubstr("no browser is configured"));
  EXPECT_TRUE(std::filesystem::exists(folder_.Path("Other/Preferences")));
}

TEST_F(FileProfilesTest, UnknownProfileIsNotFoundBeforeAnythingElse) {
  const auto deleted =
      Answer<Done>([this](auto reply) { profiles_->DeleteProfile("Nobody", reply); });
  const auto incognito =
      Answer<bool>([this](auto reply) { profiles_->IsIncognito("Nobody", reply); });

  EXPECT_EQ(deleted.status(), absl::NotFoundError("there is no profile \"Nobody\""));
  EXPECT_EQ(incognito.status(), deleted.status());
}

TEST_F(FileProfilesTest, AsksTheBrowserForItsVersionOnce) {
  FileProfilesOptions options;
  options.browser = MakeBrowser();
  MakeProfiles(std::move(options));

  const auto first = GetUserAgent();
  const auto second = GetUserAgent();

  ASSERT_TRUE(first.ok()) << first.status();
  EXPECT_THAT(first->text, HasSubstr(" Chrome/156.0.0.0 "));
  EXPECT_EQ(second->metadata.full_version(), "156.0.8078.79");
  EXPECT_EQ(folder_.Read("runs"), "run\n");
}

TEST_F(FileProfilesTest, SaysHowToNameAMissingBrowserAndAsksAgain) {
  FileProfilesOptions options;
  options.browser = folder_.Path("browser");
  MakeProfiles(std::move(options));

  const absl::Status before = GetUserAgent().status();
  MakeBrowser();
  const auto after = GetUserAgent();

  EXPECT_TRUE(absl::IsFailedPrecondition(before)) << before;
  EXPECT_THAT(MessageOf(before), HasSubstr(folder_.Path("browser")));
  EXPECT_THAT(MessageOf(before), HasSubstr("--user-agent"));
  ASSERT_TRUE(after.ok()) << after.status();
  EXPECT_THAT(after->text, HasSubstr("Chrome/156"));
}

TEST_F(FileProfilesTest, GivenUserAgentNeedsNoBrowser) {
  FileProfilesOptions options;
  options.user_agent = UserAgentFromText("Robot Chrome/99.1.2.3").value();
  options.browser = "/nonexistent/browser";
  MakeProfiles(std::move(options));

  const auto user_agent = GetUserAgent();

  ASSERT_TRUE(user_agent.ok()) << user_agent.status();
  EXPECT_EQ(user_agent->text, "Robot Chrome/99.1.2.3");
}

TEST_F(FileProfilesTest, DestructionAnswersEveryCallOnce) {
  constexpr size_t kCalls = 50;
  MakeProfiles();
  int answers = 0;
  for (size_t i = 0; i < kCalls; ++i) {
    profiles_->Name("Default", [&answers](const absl::StatusOr<std::string>& name) {
      ++answers;
      EXPECT_TRUE(name.ok() ? *name == "Ada" : absl::IsUnavailable(name.status()));
    });
  }

  profiles_ = nullptr;

  ASSERT_EQ(queue_.size(), kCalls);
  for (size_t i = 0; i < kCalls; ++i) queue_.RunNext();
  EXPECT_EQ(answers, static_cast<int>(kCalls));
}

TEST_F(FileProfilesTest, HasNothingToClose) {
  MakeProfiles();
  bool is_closed = false;

  profiles_->Close([&is_closed] { is_closed = true; });

  EXPECT_TRUE(is_closed);
}

}  // namespace
}  // namespace varnic::host
