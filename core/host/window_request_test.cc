#include "core/host/window_request.h"

#include <string>

#include "core/host/browser/testing/scoped_variable.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using testing::ScopedVariable;

std::string MessageOf(const absl::Status& status) {
  return std::string(status.message());
}

TEST(CheckUrlTest, TakesWhatABrowserOpens) {
  for (const char* url :
       {"", "about:blank", "http://localhost:8080/a?b#c", "HTTPS://example.org",
        "file:///etc/hosts", "data:text/html,<p>hello world", "chrome://version",
        "view-source:https://example.org/", "https://[::1]/", "https://user@example.org/ä"}) {
    EXPECT_EQ(CheckUrl(url), absl::OkStatus()) << url;
  }
}

TEST(CheckUrlTest, NamesWhatNoBrowserOpens) {
  for (const char* url : {"example.org", "/etc/hosts", ":", "://", "javascript:alert(1)", "http:",
                          "http://", "https:///path", "http://?query", "mailto:a@example.org",
                          "view-source:example.org", "http://a\nb", " http://a", "\x01"}) {
    EXPECT_TRUE(absl::IsInvalidArgument(CheckUrl(url))) << url;
  }
  EXPECT_THAT(MessageOf(CheckUrl("example.org")),
              AllOf(HasSubstr("\"example.org\""), HasSubstr("not absolute")));
  EXPECT_THAT(MessageOf(CheckUrl("mailto:a@b")), HasSubstr("no browser window opens"));
  EXPECT_THAT(MessageOf(CheckUrl("a\nb")), HasSubstr("a\\nb"));
}

TEST(CheckUrlTest, QuotesNoMoreThanTheBeginningOfALongOne) {
  EXPECT_LT(MessageOf(CheckUrl(std::string(3 << 20, 'x'))).size(), 300u);
}

TEST(WindowOptionsTest, HasWhatWasAskedFor) {
  rpc::BrowserOptions options;
  options.set_url("about:blank");
  options.set_headless(true);
  options.mutable_window_position()->set_x(-5);
  options.mutable_window_size()->set_width(640);
  options.mutable_window_size()->set_height(480);

  const auto window = WindowOptionsFrom(options);

  ASSERT_TRUE(window.ok()) << window.status();
  EXPECT_EQ(window->url, "about:blank");
  EXPECT_TRUE(window->headless);
  ASSERT_TRUE(window->position.has_value() && window->size.has_value());
  EXPECT_EQ(window->position->x, -5);
  EXPECT_EQ(window->size->height, 480u);
}

TEST(WindowOptionsTest, LeavesTheRestToTheBrowser) {
  const auto window = WindowOptionsFrom(rpc::BrowserOptions());

  ASSERT_TRUE(window.ok()) << window.status();
  EXPECT_FALSE(window->headless);
  EXPECT_FALSE(window->position.has_value());
  EXPECT_FALSE(window->size.has_value());
}

TEST(WindowOptionsTest, RefusesSizesThatNoWindowHas) {
  rpc::BrowserOptions options;
  options.mutable_window_size()->set_width(640);

  const absl::Status without_height = WindowOptionsFrom(options).status();
  options.mutable_window_size()->set_height(4'000'000'000);
  const absl::Status too_high = WindowOptionsFrom(options).status();

  EXPECT_TRUE(absl::IsInvalidArgument(without_height)) << without_height;
  EXPECT_THAT(MessageOf(without_height), HasSubstr("640 x 0"));
  EXPECT_TRUE(absl::IsInvalidArgument(too_high)) << too_high;
}

TEST(CheckDisplayTest, OnlyAWindowNeedsOne) {
  const ScopedVariable x11("DISPLAY", "");
  const ScopedVariable wayland("WAYLAND_DISPLAY", "");
  WindowOptions options;
  options.headless = false;

  const absl::Status status = CheckDisplay(options);
  options.headless = true;

  EXPECT_TRUE(absl::IsFailedPrecondition(status)) << status;
  EXPECT_THAT(MessageOf(status), HasSubstr("ask for a headless browser"));
  EXPECT_EQ(CheckDisplay(options), absl::OkStatus());
}

TEST(CheckDisplayTest, EitherKindWillDo) {
  const ScopedVariable x11("DISPLAY", "");
  const ScopedVariable wayland("WAYLAND_DISPLAY", "wayland-0");
  WindowOptions options;
  options.headless = false;

  EXPECT_EQ(CheckDisplay(options), absl::OkStatus());
}

}  // namespace
}  // namespace varnic::host
