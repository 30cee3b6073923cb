#include "core/host/user_data_dir.h"

#include <unistd.h>

#include <filesystem>
#include <string>
#include <utility>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "core/host/testing/temporary_folder.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using testing::TemporaryFolder;

// In the form in which Chromium writes them: one line, keys sorted.
constexpr char kLocalState[] =
    R"({"breadcrumbs":{"enabled":false,"enabled_time":"13439699994086352"},"profile":)"
    R"({"info_cache":{"Default":{"active_time":1795226394.211937,)"
    R"("default_avatar_fill_color":-2890755,)"
    R"("is_using_default_name":true,"name":"Your Chromium"},"Profile 1":{"name":"Ada"},)"
    R"("Profile 2":{"name":""},"Profile 3":{"name":"Folder is gone"}},"last_used":"Profile 1",)"
    R"("profiles_order":["Default","Profile 1","Profile 2","Profile 3"]}})";
constexpr char kPreferences[] =
    R"({"account_tracker_service_last_update":"13439699994266340","browser":{"window_placement":)"
    R"({"bottom":590,"maximized":false}},"intl":{"selected_languages":"en-US,en"},"media":)"
    R"({"engagement":{"schema_version":5}},"profile":{"name":"Your Chromium","score":0.1},)"
    R"("zoom":-2.5})";

class UserDataDirTest : public ::testing::Test {
 protected:
  UserDataDirTest() {
    folder_.Write("Local State", kLocalState);
    folder_.Write("Default/Preferences", kPreferences);
    folder_.Write("Profile 1/Preferences", "{}");
    folder_.Write("Profile 2/Preferences", R"({"profile":{"name":"Bob"}})");
    folder_.Write("Unlisted/Preferences", "{}");
    folder_.Write("Crashpad/settings.dat", "");
  }

  UserDataDir Open() {
    absl::StatusOr<UserDataDir> directory = UserDataDir::Open(folder_.path());
    EXPECT_TRUE(directory.ok()) << directory.status();
    return *std::move(directory);
  }

  // What becomes of the default profile's Preferences when a list is set in it.
  std::string PreferencesAfterSetting(const std::string& preferences, const std::string& list) {
    folder_.Write("Default/Preferences", preferences);
    const absl::Status status = Open().SetAcceptLanguage("Default", list);
    EXPECT_TRUE(status.ok()) << status;
    return folder_.Read("Default/Preferences");
  }

  void ExpectDamaged(const std::string& file, const absl::Status& status) {
    EXPECT_TRUE(absl::IsDataLoss(status)) << status;
    EXPECT_THAT(std::string(status.message()), HasSubstr(folder_.Path(file)));
  }

  TemporaryFolder folder_;
};

TEST_F(UserDataDirTest, ASecondHostIsRefusedUntilTheFirstIsGone) {
  {
    const UserDataDir first = Open();

    const absl::Status status = UserDataDir::Open(folder_.path() + "/.").status();

    EXPECT_TRUE(absl::IsFailedPrecondition(status)) << status;
    EXPECT_THAT(std::string(status.message()), HasSubstr("\"" + folder_.path() + "\" is in use"));
  }
  EXPECT_TRUE(UserDataDir::Open(folder_.path()).ok());
}

TEST_F(UserDataDirTest, ListsTheDefaultProfileAndThenTheOthers) {
  std::filesystem::create_directory_symlink(folder_.Path("Default"), folder_.Path("Link"));

  const auto ids = Open().List();

  ASSERT_TRUE(ids.ok()) << ids.status();
  EXPECT_THAT(*ids, ElementsAre("Profile 1", "Default", "Profile 2", "Unlisted"));
}

TEST_F(UserDataDirTest, OpeningLeavesNothingBehind) {
  const auto before = folder_.Names();

  { const UserDataDir directory = Open(); }

  EXPECT_EQ(folder_.Names(), before);
}

TEST_F(UserDataDirTest, OpensOnlyDirectoriesOfChromium) {
  const TemporaryFolder other;
  other.Write("file", "");

  EXPECT_TRUE(absl::IsNotFound(UserDataDir::Open(other.Path("absent")).status()));
  EXPECT_TRUE(absl::IsFailedPrecondition(UserDataDir::Open(other.Path("file")).status()));
  const absl::Status status = UserDataDir::Open(other.path()).status();
  EXPECT_TRUE(absl::IsFailedPrecondition(status)) << status;
  EXPECT_THAT(std::string(status.message()), HasSubstr("not a Chromium user-data directory"));
}

TEST_F(UserDataDirTest, PathIsAbsoluteAndFreeOfLinks) {
  const TemporaryFolder other;
  std::filesystem::create_directory_symlink(folder_.path(), other.Path("link"));

  const absl::StatusOr<UserDataDir> directory = UserDataDir::Open(other.Path("link"));

  ASSERT_TRUE(directory.ok()) << directory.status();
  EXPECT_EQ(directory->Path("Profile 1").value_or("none"), folder_.Path("Profile 1"));
}

TEST_F(UserDataDirTest, EmptyIdIsTheProfileUsedLast) {
  EXPECT_EQ(Open().Resolve("").value_or("none"), "Profile 1");
}

TEST_F(UserDataDirTest, EmptyIdIsDefaultWhenNoneWasUsedOrItIsGone) {
  for (const char* local_state :
       {"{}", R"({"profile":{"last_used":"Gone"}})", R"({"profile":{"last_used":""}})",
        R"({"profile":{"last_used":"../Default"}})"}) {
    folder_.Write("Local State", local_state);

    EXPECT_EQ(Open().Resolve("").value_or("none"), "Default") << local_state;
  }
}

TEST_F(UserDataDirTest, EmptyIdIsNotFoundWithoutAnyDefault) {
  folder_.Write("Local State", "{}");
  std::filesystem::remove_all(folder_.Path("Default"));

  EXPECT_EQ(Open().Resolve("").status(), absl::NotFoundError("there is no profile \"Default\""));
}

TEST_F(UserDataDirTest, FindsProfilesByListOrByPreferences) {
  std::filesystem::remove(folder_.Path("Profile 1/Preferences"));
  const UserDataDir directory = Open();

  EXPECT_EQ(directory.Resolve("Profile 1").value_or("none"), "Profile 1");
  EXPECT_EQ(directory.Resolve("Unlisted").value_or("none"), "Unlisted");
}

TEST_F(UserDataDirTest, UnknownIdsAreNotFoundByName) {
  const UserDataDir directory = Open();

  EXPECT_EQ(directory.Path("Profile 9").status(),
            absl::NotFoundError("there is no profile \"Profile 9\""));
  EXPECT_TRUE(absl::IsNotFound(directory.Name("Profile 3").status()));
  EXPECT_TRUE(absl::IsNotFound(directory.IsDefault("Crashpad").status()));
  EXPECT_TRUE(absl::IsNotFound(directory.GetAcceptLanguage("Local State").status()));
}

TEST_F(UserDataDirTest, IdsNeverLeadOutOfTheDirectory) {
  folder_.Write("Default/Inner/Preferences", "{}");
  const TemporaryFolder outside;
  outside.Write("Preferences", "{}");
  std::filesystem::create_directory_symlink(outside.path(), folder_.Path("Link"));
  folder_.Write("Preferences", "{}");
  UserDataDir directory = Open();

  for (const std::string& id :
       {std::string("."), std::string(".."), std::string("/"), outside.path(),
        std::string("Default/Inner"), std::string("Default/"), std::string("./Default"),
        std::string("../x"), std::string("Link"), std::string("Default\0", 8),
        std::string(100000, 'x'), std::string("\xff\n")}) {
    const absl::Status status = directory.SetAcceptLanguage(id, "fr");
    EXPECT_TRUE(absl::IsNotFound(status)) << status;
    EXPECT_LT(status.message().size(), 500u);
  }
  EXPECT_EQ(outside.Read("Preferences"), "{}");
}

TEST_F(UserDataDirTest, NameComesFromTheListOrPreferencesOrFolder) {
  const UserDataDir directory = Open();

  EXPECT_EQ(directory.Name("Default").value_or("none"), "Your Chromium");
  EXPECT_EQ(directory.Name("").value_or("none"), "Ada");
  EXPECT_EQ(directory.Name("Profile 2").value_or("none"), "Bob");
  EXPECT_EQ(directory.Name("Unlisted").value_or("none"), "Unlisted");
}

TEST_F(UserDataDirTest, KnowsTheDefaultProfile) {
  const UserDataDir directory = Open();

  EXPECT_TRUE(directory.IsDefault("").value());
  EXPECT_TRUE(directory.IsDefault("Profile 1").value());
  EXPECT_FALSE(directory.IsDefault("Default").value());
}

TEST_F(UserDataDirTest, AcceptLanguageIsWhatWasSelected) {
  folder_.Write("Default/Preferences",
                R"({"intl":{"accept_languages":"it","selected_languages":"fr,de"}})");
  folder_.Write("Profile 1/Preferences", R"({"intl":{"accept_languages":"it"}})");
  folder_.Write("Profile 2/Preferences", R"({"intl":{"selected_languages":""}})");
  const UserDataDir directory = Open();

  EXPECT_EQ(directory.GetAcceptLanguage("Default").value_or("none"), "fr,de");
  EXPECT_EQ(directory.GetAcceptLanguage("Profile 1").value_or("none"), "it");
  EXPECT_EQ(directory.GetAcceptLanguage("Profile 2").value_or("none"), "en-US,en");
}

TEST_F(UserDataDirTest, SettingLanguagesChangesNothingElse) {
  EXPECT_EQ(
      PreferencesAfterSetting(kPreferences, "fr-FR, fr,en"),
      R"({"account_tracker_service_last_update":"13439699994266340","browser":{"window_placement":)"
      R"({"bottom":590,"maximized":false}},"intl":{"selected_languages":"fr-FR,fr,en",)"
      R"("accept_languages":"fr-FR,fr,en"},"media":{"engagement":{"schema_version":5}},)"
      R"("profile":{"name":"Your Chromium","score":0.1},"zoom":-2.5})");
  EXPECT_THAT(folder_.Names("Default"), ElementsAre("Preferences"));
}

TEST_F(UserDataDirTest, LanguagesThatWereSetAreGot) {
  UserDataDir directory = Open();

  ASSERT_TRUE(directory.SetAcceptLanguage("", "pt-BR,pt").ok());

  EXPECT_EQ(directory.GetAcceptLanguage("Profile 1").value_or("none"), "pt-BR,pt");
  EXPECT_EQ(directory.GetAcceptLanguage("Default").value_or("none"), "en-US,en");
}

TEST_F(UserDataDirTest, SettingLanguagesMakesMissingPreferences) {
  std::filesystem::remove(folder_.Path("Profile 1/Preferences"));

  ASSERT_TRUE(Open().SetAcceptLanguage("Profile 1", "fr").ok());

  EXPECT_EQ(folder_.Read("Profile 1/Preferences"),
            R"({"intl":{"selected_languages":"fr","accept_languages":"fr"}})");
}

TEST_F(UserDataDirTest, RefusesBadLanguagesAndKeepsTheFile) {
  const absl::Status status = Open().SetAcceptLanguage("Default", "fr;q=0.9");

  EXPECT_TRUE(absl::IsInvalidArgument(status)) << status;
  EXPECT_EQ(folder_.Read("Default/Preferences"), kPreferences);
}

TEST_F(UserDataDirTest, RefusesToChangeAProfileWhileABrowserRuns) {
  std::filesystem::create_symlink("another-machine-7", folder_.Path("SingletonLock"));

  const absl::Status status = Open().SetAcceptLanguage("Default", "fr");

  EXPECT_TRUE(absl::IsFailedPrecondition(status)) << status;
  EXPECT_THAT(std::string(status.message()), HasSubstr("another-machine"));
  EXPECT_EQ(folder_.Read("Default/Preferences"), kPreferences);
}

TEST_F(UserDataDirTest, DamagedPreferencesAreReportedAndKept) {
  for (const char* damaged : {"", "{\"intl\":", "[]", R"({"intl":[]})",
                              R"({"intl":{"selected_languages":"fr","accept_languages":1}})",
                              R"({"intl":{"selected_languages":null}})"}) {
    folder_.Write("Default/Preferences", damaged);

    ExpectDamaged("Default/Preferences", Open().SetAcceptLanguage("Default", "fr"));

    EXPECT_EQ(folder_.Read("Default/Preferences"), damaged);
  }
}

TEST_F(UserDataDirTest, DamagedLocalStateIsReported) {
  for (const char* damaged : {"nonsense", R"({"profile":1})", R"({"profile":{"last_used":1}})"}) {
    folder_.Write("Local State", damaged);

    ExpectDamaged("Local State", Open().IsDefault("Default").status());
    ExpectDamaged("Local State", Open().Path("").status());
  }
}

}  // namespace
}  // namespace varnic::host
