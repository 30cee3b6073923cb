#include "core/host/browser_version.h"

#include <sys/stat.h>

#include <string>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "core/host/testing/temporary_folder.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using ::testing::HasSubstr;
using testing::TemporaryFolder;

// "<product>|<version>", or the failure.
std::string Text(const absl::StatusOr<BrowserVersion>& version) {
  if (!version.ok()) return version.status().ToString();
  return absl::StrCat(version->product, "|", version->version);
}

std::string MakeScript(const TemporaryFolder& folder, const std::string& commands) {
  const std::string path = folder.Write("browser", absl::StrCat("#!/bin/sh\n", commands, "\n"));
  EXPECT_EQ(::chmod(path.c_str(), 0755), 0);
  return path;
}

TEST(ParseBrowserVersionTest, ReadsProductAndVersion) {
  EXPECT_EQ(
      Text(ParseBrowserVersion("Chromium 156.0.8078.79 built on Debian GNU/Linux 12 (bookworm)\n")),
      "Chromium|156.0.8078.79");
  EXPECT_EQ(Text(ParseBrowserVersion("Chromium 156.0.8078.79 \n")), "Chromium|156.0.8078.79");
  EXPECT_EQ(Text(ParseBrowserVersion("Google Chrome 99.0.1.2 beta")), "Google Chrome|99.0.1.2");
}

TEST(ParseBrowserVersionTest, SkipsLinesWithoutAVersion) {
  EXPECT_EQ(Text(ParseBrowserVersion("warning: 3.14\r\n\r\nChromium  1.2.3.4\r\nOther 5.6.7.8")),
            "Chromium|1.2.3.4");
}

TEST(ParseBrowserVersionTest, RefusesTextWithoutAVersion) {
  for (const char* output :
       {"", "\n", "Chromium", "Chromium 156", "Chromium 156.0.8078", "156.0.8078.79",
        "Chromium 156.0.8078.79.1", "Chromium 156.0..79", "Chromium v156.0.8078.79",
        "Chromium 156.0.8078.-79", "Chromium\n156.0.8078.79", "Chromium 1234567890.0.0.0"}) {
    EXPECT_TRUE(absl::IsInvalidArgument(ParseBrowserVersion(output).status())) << output;
  }
}

TEST(ParseBrowserVersionTest, QuotesTheStartOfWhatItCannotRead) {
  const absl::Status status = ParseBrowserVersion("bad\x01" + std::string(5000, 'x')).status();

  EXPECT_THAT(std::string(status.message()), HasSubstr("\"bad\\x01xxx"));
  EXPECT_LT(status.message().size(), 200u);
}

TEST(LookUpBrowserVersionTest, AsksTheBrowserWithItsVersionSwitch) {
  const TemporaryFolder folder;
  const std::string browser = MakeScript(folder, R"([ "$*" = --version ] && echo "Test 1.2.3.4")");

  EXPECT_EQ(Text(LookUpBrowserVersion(browser, absl::Seconds(60))), "Test|1.2.3.4");
}

TEST(LookUpBrowserVersionTest, NamesABrowserThatIsNotThere) {
  const absl::Status status = LookUpBrowserVersion("/nonexistent/browser").status();

  EXPECT_TRUE(absl::IsFailedPrecondition(status)) << status;
  EXPECT_THAT(std::string(status.message()), HasSubstr("/nonexistent/browser"));
}

TEST(LookUpBrowserVersionTest, NamesAProgramThatIsNotABrowser) {
  const absl::Status status = LookUpBrowserVersion("/bin/true", absl::Seconds(60)).status();

  EXPECT_TRUE(absl::IsFailedPrecondition(status)) << status;
  EXPECT_THAT(std::string(status.message()), HasSubstr("/bin/true --version"));
}

TEST(LookUpBrowserVersionTest, IsUnavailableWhenTheBrowserDoesNotAnswer) {
  const TemporaryFolder folder;
  const std::string browser = MakeScript(folder, "sleep 600");

  const absl::Status status = LookUpBrowserVersion(browser, absl::Milliseconds(50)).status();

  EXPECT_TRUE(absl::IsUnavailable(status)) << status;
}

}  // namespace
}  // namespace varnic::host
