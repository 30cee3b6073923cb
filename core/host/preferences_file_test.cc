#include "core/host/preferences_file.h"

#include <filesystem>
#include <optional>
#include <string>

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

class PreferencesFileTest : public ::testing::Test {
 protected:
  absl::StatusOr<PreferencesFile> LoadText(const std::string& text) {
    return PreferencesFile::Load(folder_.Write("Preferences", text));
  }

  // What the file holds after "intl.selected_languages" was set in `text`.
  std::string AfterSettingLanguages(const std::string& text) {
    absl::StatusOr<PreferencesFile> file = LoadText(text);
    if (!file.ok()) return file.status().ToString();
    absl::Status status = file->SetString({"intl", "selected_languages"}, "fr");
    if (status.ok()) status = file->Save();
    return status.ok() ? folder_.Read("Preferences") : status.ToString();
  }

  // That `text` is refused as damaged, with `problem` and the file's path in the text.
  void ExpectDamaged(const std::string& text, const std::string& problem) {
    const absl::Status status = LoadText(text).status();
    EXPECT_TRUE(absl::IsDataLoss(status)) << status;
    EXPECT_THAT(std::string(status.message()), HasSubstr(problem));
    EXPECT_THAT(std::string(status.message()), HasSubstr(folder_.Path("Preferences")));
  }

  TemporaryFolder folder_;
};

TEST_F(PreferencesFileTest, FindsTextsByTheirKeys) {
  const absl::StatusOr<PreferencesFile> file =
      LoadText(R"({"profile":{"name":"Ada","a.b":{"c":"d"}}})");
  ASSERT_TRUE(file.ok()) << file.status();

  EXPECT_EQ(file->GetString({"profile", "name"}).value(), "Ada");
  EXPECT_EQ(file->GetString({"profile", "a.b", "c"}).value(), "d");
  EXPECT_EQ(file->GetString({"profile", "absent"}).value(), std::nullopt);
  EXPECT_EQ(file->GetString({"absent", "name"}).value(), std::nullopt);
  EXPECT_TRUE(file->HasObject({"profile", "a.b"}).value());
  EXPECT_FALSE(file->HasObject({"profile", "a"}).value());
}

TEST_F(PreferencesFileTest, SaysWhereSomethingElseIsThanExpected) {
  absl::StatusOr<PreferencesFile> file = LoadText(R"({"intl":{"selected_languages":["fr"]}})");
  ASSERT_TRUE(file.ok()) << file.status();
  const std::string path = folder_.Path("Preferences");

  EXPECT_EQ(file->GetString({"intl", "selected_languages"}).status(),
            absl::DataLossError(absl::StrCat(
                "\"", path, "\" has something else than a text at \"intl.selected_languages\"")));
  EXPECT_EQ(file->SetString({"intl", "selected_languages", "x"}, "fr"),
            absl::DataLossError(absl::StrCat("\"", path,
                                             "\" has something else than an object at "
                                             "\"intl.selected_languages\"")));
  EXPECT_TRUE(absl::IsDataLoss(file->HasObject({"intl", "selected_languages"}).status()));
}

TEST_F(PreferencesFileTest, MissingFileHasNoSettingsAndCanBeSaved) {
  absl::StatusOr<PreferencesFile> file = PreferencesFile::Load(folder_.Path("Preferences"));
  ASSERT_TRUE(file.ok()) << file.status();
  EXPECT_EQ(file->GetString({"profile", "name"}).value(), std::nullopt);

  ASSERT_TRUE(file->SetString({"profile", "name"}, "Ada").ok());
  ASSERT_TRUE(file->Save().ok());

  EXPECT_EQ(folder_.Read("Preferences"), R"({"profile":{"name":"Ada"}})");
}

TEST_F(PreferencesFileTest, KeepsEverythingElseInItsPlace) {
  EXPECT_EQ(
      AfterSettingLanguages(R"({"z":1,"intl":{"y":[],"selected_languages":"de","x":{}},"a":null})"),
      R"({"z":1,"intl":{"y":[],"selected_languages":"fr","x":{}},"a":null})");
  EXPECT_EQ(AfterSettingLanguages(R"({"z":true})"),
            R"({"z":true,"intl":{"selected_languages":"fr"}})");
}

TEST_F(PreferencesFileTest, KeepsNumbersAndTexts) {
  const std::string values =
      R"("numbers":[13439699994266340,9223372036854775807,-9223372036854775808,)"
      R"(18446744073709551615,1795226394.211937,0.1,-0.0,1e+300,5e-324,2.0],)"
      R"("texts":["","ü 日本 😀","\"\\\b\f\n\r\t","\u0000\u001f"])";

  EXPECT_EQ(AfterSettingLanguages(absl::StrCat("{", values, "}")),
            absl::StrCat("{", values, R"(,"intl":{"selected_languages":"fr"}})"));
}

TEST_F(PreferencesFileTest, RefusesWhatIsNotAJsonObject) {
  ExpectDamaged("", "is not valid JSON (at byte 1)");
  ExpectDamaged("{", "is not valid JSON");
  ExpectDamaged("{} {}", "is not valid JSON");
  ExpectDamaged("{\"a\":1e999}", "is not valid JSON");
  ExpectDamaged("{\"a\":\"\xff\"}", "is not valid JSON");
  ExpectDamaged("[]", "is not a JSON object");
  ExpectDamaged("null", "is not a JSON object");
}

TEST_F(PreferencesFileTest, RefusesAbsurdNesting) {
  const auto nested = [](size_t depth) {
    return absl::StrCat("{\"a\":", std::string(depth - 1, '['), std::string(depth - 1, ']'), "}");
  };

  EXPECT_TRUE(LoadText(nested(200)).ok());
  ExpectDamaged(nested(201), "is nested too deeply");
  ExpectDamaged(std::string(1000000, '['), "is nested too deeply");
}

TEST_F(PreferencesFileTest, RefusesAnObjectWithTooManyKeys) {
  std::string text = "{\"a\":{";
  for (int i = 0; i < 40000; ++i) absl::StrAppend(&text, i == 0 ? "" : ",", "\"", i, "\":0");
  text += "}}";

  ExpectDamaged(text, "has too many keys in one object");
}

TEST_F(PreferencesFileTest, LeavesAFileAloneThatItCannotReplace) {
  absl::StatusOr<PreferencesFile> file = LoadText("{}");
  ASSERT_TRUE(file.ok()) << file.status();
  ASSERT_TRUE(file->SetString({"a"}, "b").ok());
  std::filesystem::remove(folder_.Path("Preferences"));
  std::filesystem::create_directory(folder_.Path("Preferences"));

  EXPECT_TRUE(absl::IsFailedPrecondition(file->Save()));
  EXPECT_THAT(folder_.Names(), ElementsAre("Preferences"));
}

}  // namespace
}  // namespace varnic::host
