#include "core/host/profile_store.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "absl/strings/str_cat.h"
#include "core/host/testing/lock_holders.h"
#include "core/host/testing/temporary_folder.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

namespace fs = std::filesystem;

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using testing::TemporaryFolder;

std::string MessageOf(const absl::Status& status) {
  return std::string(status.message());
}

// Lets this process write no file longer than `bytes`.
bool LimitFiles(rlim_t bytes) {
  const rlimit limit = {bytes, bytes};
  return ::signal(SIGXFSZ, SIG_IGN) != SIG_ERR && ::setrlimit(RLIMIT_FSIZE, &limit) == 0;
}

class ProfileStoreTest : public ::testing::Test {
 protected:
  ProfileStoreTest() { OpenAgain(); }

  void OpenAgain() {
    store_.reset();
    absl::StatusOr<ProfileStore> opened = ProfileStore::Open(path_);
    ASSERT_TRUE(opened.ok()) << opened.status();
    store_.emplace(*std::move(opened));
  }
  // The id of a new profile, or the failure.
  std::string Create(const std::string& name = "") {
    const auto profile = store_->Create(name);
    return profile.ok() ? profile->id : profile.status().ToString();
  }
  std::vector<std::string> Ids() {
    std::vector<std::string> ids;
    const auto profiles = store_->List();
    for (const StoredProfile& profile : *profiles) ids.push_back(profile.id);
    return ids;
  }
  std::string Languages(const std::string& id = kDefaultProfile) {
    const auto list = store_->GetAcceptLanguage(id);
    return list.ok() ? *list : list.status().ToString();
  }
  std::string Settings(const std::string& id = kDefaultProfile) {
    return folder_.Read("store/" + id + "/Default/Preferences");
  }
  void WriteSettings(const std::string& text) {
    folder_.Write("store/default/Default/Preferences", text);
  }
  void PretendThatABrowserRuns(const std::string& id) {
    fs::create_symlink(absl::StrCat(testing::HostName(), "-", ::getpid()),
                       path_ + "/" + id + "/SingletonLock");
  }

  const TemporaryFolder folder_;
  const std::string path_ = folder_.Path("store");
  std::optional<ProfileStore> store_;
};

TEST_F(ProfileStoreTest, BeginsWithTheDefaultProfileForItsUserAlone) {
  const auto profiles = store_->List();

  ASSERT_TRUE(profiles.ok()) << profiles.status();
  ASSERT_EQ(profiles->size(), 1u);
  const StoredProfile& profile = profiles->front();
  EXPECT_EQ(profile.id, "default");
  EXPECT_EQ(profile.name, "default");
  EXPECT_EQ(profile.user_data_dir, path_ + "/default");
  EXPECT_EQ(profile.path, path_ + "/default/Default");
  for (const std::string& folder : {path_, profile.user_data_dir, profile.path}) {
    struct stat info = {};
    ASSERT_EQ(::stat(folder.c_str(), &info), 0) << folder;
    EXPECT_EQ(info.st_mode & 0777, 0700u) << folder;
  }
}

TEST_F(ProfileStoreTest, MakesTheFoldersAboveIt) {
  EXPECT_TRUE(ProfileStore::Open(folder_.Path("a/b/c")).ok());
}

TEST_F(ProfileStoreTest, SecondHostIsRefusedUntilTheFirstIsGone) {
  const absl::Status status = ProfileStore::Open(path_ + "/.").status();
  store_.reset();

  EXPECT_TRUE(absl::IsFailedPrecondition(status)) << status;
  EXPECT_THAT(MessageOf(status), HasSubstr("\"" + path_ + "\" are in use by another host"));
  EXPECT_TRUE(ProfileStore::Open(path_).ok());
}

TEST_F(ProfileStoreTest, FolderOfSomethingElseIsRefusedAndLeftAlone) {
  folder_.Write("other/file", "");

  const absl::Status status = ProfileStore::Open(folder_.Path("other")).status();

  EXPECT_TRUE(absl::IsFailedPrecondition(status)) << status;
  EXPECT_THAT(MessageOf(status), HasSubstr(folder_.Path("other")));
  EXPECT_THAT(folder_.Names("other"), ElementsAre("file"));
}

TEST_F(ProfileStoreTest, ProfileKeepsItsNameAndItsPlace) {
  EXPECT_EQ(Create("Ada 爱达"), "profile-1");
  EXPECT_EQ(Create(), "profile-2");

  OpenAgain();

  const auto profiles = store_->List().value();
  ASSERT_EQ(profiles.size(), 3u);
  EXPECT_EQ(profiles[1].id, "profile-1");
  EXPECT_EQ(profiles[1].name, "Ada 爱达");
  EXPECT_EQ(profiles[2].name, "profile-2");
}

TEST_F(ProfileStoreTest, ListsProfilesByTheirNumbers) {
  for (int i = 0; i < 10; ++i) Create();
  for (int i = 2; i < 9; ++i) EXPECT_TRUE(store_->Delete(absl::StrCat("profile-", i)).ok());

  EXPECT_THAT(Ids(), ElementsAre("default", "profile-1", "profile-9", "profile-10"));
}

TEST_F(ProfileStoreTest, NumberIsNeverUsedAgain) {
  EXPECT_EQ(Create(), "profile-1");
  EXPECT_TRUE(store_->Delete("profile-1").ok());
  EXPECT_EQ(Create(), "profile-2");
  EXPECT_TRUE(store_->Delete("profile-2").ok());

  OpenAgain();

  EXPECT_EQ(Create(), "profile-3");
}

TEST_F(ProfileStoreTest, NumbersGoOnBehindAFolderThatWasCopied) {
  fs::copy(path_ + "/default", path_ + "/profile-7", fs::copy_options::recursive);

  OpenAgain();

  EXPECT_EQ(Create(), "profile-8");
}

TEST_F(ProfileStoreTest, DamagedNumberIsNamedAndNotGuessed) {
  for (const char* text : {"", "none", "0", "-1", "99999999999999999999"}) {
    store_.reset();
    folder_.Write("store/next-profile", text);

    const absl::Status status = ProfileStore::Open(path_).status();

    EXPECT_TRUE(absl::IsDataLoss(status)) << text << status;
    EXPECT_THAT(MessageOf(status), HasSubstr(path_ + "/next-profile"));
  }
}

TEST_F(ProfileStoreTest, RefusesNamesThatNobodyCouldRead) {
  for (const std::string& name :
       {std::string(kMaxProfileNameBytes + 1, 'x'), std::string("a\nb"), std::string("a\0b", 3),
        std::string("\xff"), std::string("\x7f")}) {
    EXPECT_TRUE(absl::IsInvalidArgument(store_->Create(name).status())) << name;
  }
  EXPECT_THAT(Ids(), ElementsAre("default"));
  EXPECT_EQ(Create(std::string(kMaxProfileNameBytes, 'x')), "profile-1");
}

TEST_F(ProfileStoreTest, DeletedProfileIsGoneFromTheDisk) {
  Create();
  folder_.Write("store/profile-1/Default/Cache/deep/file", "x");
  fs::create_directory_symlink(folder_.path(), path_ + "/profile-1/link");

  EXPECT_EQ(store_->Delete("profile-1"), absl::OkStatus());

  EXPECT_THAT(folder_.Names("store"), ElementsAre("default", "next-profile"));
  EXPECT_EQ(store_->Delete("profile-1"), absl::NotFoundError("there is no profile \"profile-1\""));
}

TEST_F(ProfileStoreTest, DefaultProfileStays) {
  EXPECT_TRUE(absl::IsFailedPrecondition(store_->Delete(kDefaultProfile)));
  EXPECT_THAT(Ids(), ElementsAre("default"));
}

TEST_F(ProfileStoreTest, ProfileWithABrowserIsNotDeleted) {
  Create();
  PretendThatABrowserRuns("profile-1");

  const absl::Status status = store_->Delete("profile-1");

  EXPECT_TRUE(absl::IsFailedPrecondition(status)) << status;
  EXPECT_THAT(Ids(), ElementsAre("default", "profile-1"));
}

TEST_F(ProfileStoreTest, IdsThatAreNoneAreNotFound) {
  folder_.Write("outside/Default/Preferences", "{}");
  fs::create_directory_symlink(folder_.Path("outside"), path_ + "/profile-5");

  for (const char* id : {"", ".", "..", "../outside", "profile-5", "profile-0", "profile-01",
                         "profile-+1", "profile-", "next-profile", "Default", "default/"}) {
    EXPECT_TRUE(absl::IsNotFound(store_->Delete(id))) << id;
    EXPECT_TRUE(absl::IsNotFound(store_->SetAcceptLanguage(id, "fr"))) << id;
    EXPECT_FALSE(store_->Has(id)) << id;
  }
  EXPECT_EQ(folder_.Read("outside/Default/Preferences"), "{}");
}

TEST_F(ProfileStoreTest, LinksAndStrangersAreLeftAlone) {
  fs::create_directory_symlink(folder_.path(), path_ + "/profile-5");
  fs::create_directory_symlink(folder_.path(), path_ + "/profile-6.deleted");
  folder_.Write("store/profile-6", "a file");
  folder_.Write("store/notes.new/file", "");
  folder_.Write("store/.varnic-mine/file", "");
  const auto before = folder_.Names("store");

  OpenAgain();

  EXPECT_THAT(Ids(), ElementsAre("default"));
  EXPECT_EQ(folder_.Names("store"), before);
}

TEST_F(ProfileStoreTest, WhatACrashLeftIsSweptAway) {
  folder_.Write("store/profile-1.new/Default/Preferences", "{}");
  folder_.Write("store/profile-2.deleted/Default/Preferences", "{}");
  folder_.Write("store/default.new/file", "");
  folder_.Write("store/.varnic-A1b2C3", "half a fi");

  OpenAgain();

  EXPECT_THAT(folder_.Names("store"), ElementsAre("default", "next-profile"));
}

TEST_F(ProfileStoreTest, CrashBeforeTheFirstProfileIsNoHindrance) {
  folder_.Write("early/.varnic-A1b2C3", "");

  EXPECT_TRUE(ProfileStore::Open(folder_.Path("early")).ok());

  EXPECT_THAT(folder_.Names("early"), ElementsAre("default", "next-profile"));
}

TEST_F(ProfileStoreTest, FullDiskLeavesNoHalfOfAProfile) {
  const pid_t child = ::fork();
  if (child == 0) {
    // The number still has room, and the settings do not.
    const bool failed = LimitFiles(8) && !store_->Create("Ada").ok();
    ::_exit(failed ? 0 : 1);
  }
  int status = 0;

  ASSERT_EQ(::waitpid(child, &status, 0), child);

  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_THAT(folder_.Names("store"), ElementsAre("default", "next-profile"));
  OpenAgain();
  EXPECT_EQ(Create(), "profile-2");
}

TEST_F(ProfileStoreTest, UnreadableSettingsCostTheNameAlone) {
  WriteSettings("{ half");

  EXPECT_EQ(store_->List().value().front().name, "default");
  EXPECT_THAT(Languages(), HasSubstr("DATA_LOSS"));
  EXPECT_TRUE(absl::IsDataLoss(store_->PrepareStart(kDefaultProfile)));
  EXPECT_EQ(Settings(), "{ half");
}

TEST_F(ProfileStoreTest, LanguagesAreWrittenForTheNextBrowser) {
  EXPECT_EQ(Languages(), "en-US,en");

  EXPECT_EQ(store_->SetAcceptLanguage(kDefaultProfile, "fr-FR,fr"), absl::OkStatus());

  OpenAgain();
  EXPECT_EQ(Languages(), "fr-FR,fr");
  EXPECT_THAT(Settings(), HasSubstr(R"("selected_languages":"fr-FR,fr")"));
  EXPECT_THAT(Settings(), HasSubstr(R"("accept_languages":"fr-FR,fr")"));
}

TEST_F(ProfileStoreTest, NothingIsWrittenUnderABrowser) {
  const std::string before = Settings();
  PretendThatABrowserRuns(kDefaultProfile);

  EXPECT_TRUE(absl::IsFailedPrecondition(store_->SetAcceptLanguage(kDefaultProfile, "fr")));
  EXPECT_TRUE(absl::IsFailedPrecondition(store_->PrepareStart(kDefaultProfile)));
  EXPECT_EQ(Settings(), before);
}

TEST_F(ProfileStoreTest, BrowserThatWasKilledIsNotTakenForACrash) {
  WriteSettings(R"({"profile":{"exit_type":"Crashed","name":"Ada"},"other":[1]})");

  EXPECT_EQ(store_->PrepareStart(kDefaultProfile), absl::OkStatus());

  EXPECT_EQ(Settings(), R"({"profile":{"exit_type":"Normal","name":"Ada"},"other":[1]})");
}

TEST_F(ProfileStoreTest, RememberedLanguagesAreReadBeforeTheyAreWritten) {
  store_->RememberAcceptLanguage(kDefaultProfile, "de,en");

  EXPECT_EQ(Languages(), "de,en");
  EXPECT_THAT(Settings(), ::testing::Not(HasSubstr("de,en")));
}

TEST_F(ProfileStoreTest, RememberedLanguagesAreWrittenBeforeTheNextStart) {
  store_->RememberAcceptLanguage(kDefaultProfile, "de,en");

  EXPECT_EQ(store_->PrepareStart(kDefaultProfile), absl::OkStatus());

  EXPECT_THAT(Settings(), HasSubstr(R"("selected_languages":"de,en")"));
  EXPECT_THAT(Settings(), HasSubstr(R"("exit_type":"Normal")"));
}

TEST_F(ProfileStoreTest, RememberedLanguagesAreWrittenWhenABrowserWasKilled) {
  store_->RememberAcceptLanguage(kDefaultProfile, "de,en");

  const auto name = store_->Settle(kDefaultProfile);

  EXPECT_EQ(name.value_or(""), "default");
  EXPECT_THAT(Settings(), HasSubstr(R"("selected_languages":"de,en")"));
}

TEST_F(ProfileStoreTest, RememberedLanguagesOutliveTheHost) {
  store_->RememberAcceptLanguage(kDefaultProfile, "de,en");

  OpenAgain();

  EXPECT_EQ(Languages(), "de,en");
  EXPECT_EQ(store_->PrepareStart(kDefaultProfile), absl::OkStatus());
  EXPECT_THAT(Settings(), HasSubstr(R"("selected_languages":"de,en")"));
  // Once, and not again after its user has chosen others.
  WriteSettings(R"({"intl":{"selected_languages":"it"}})");
  OpenAgain();
  EXPECT_EQ(Languages(), "it");
}

TEST_F(ProfileStoreTest, RememberedLanguagesThatAreNoneAreLeftOut) {
  folder_.Write("store/default/varnic-languages", "\xff;");

  OpenAgain();

  EXPECT_EQ(Languages(), "en-US,en");
}

TEST_F(ProfileStoreTest, WhatTheBrowserHasWrittenIsForgotten) {
  store_->RememberAcceptLanguage(kDefaultProfile, "de,en");
  WriteSettings(R"({"intl":{"selected_languages":"de,en","accept_languages":"de,en,x"}})");

  store_->CheckRemembered(kDefaultProfile);

  // What its user has chosen since then stays.
  WriteSettings(R"({"intl":{"selected_languages":"it"}})");
  EXPECT_EQ(Languages(), "it");
  EXPECT_TRUE(store_->Settle(kDefaultProfile).ok());
  EXPECT_EQ(Settings(), R"({"intl":{"selected_languages":"it"}})");
}

TEST_F(ProfileStoreTest, SettlingTellsTheNameThatTheBrowserLeft) {
  WriteSettings(R"({"profile":{"name":"Grace"}})");

  EXPECT_EQ(store_->Settle(kDefaultProfile).value_or(""), "Grace");
  EXPECT_TRUE(absl::IsNotFound(store_->Settle("profile-9").status()));
}

}  // namespace
}  // namespace varnic::host
