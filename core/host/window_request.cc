#include "core/host/window_request.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <string>

#include "absl/strings/ascii.h"
#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "core/host/short_text.h"

namespace varnic::host {
namespace {

// Chromium opens no longer ones.
constexpr size_t kMaxUrlBytes = 2 << 20;
constexpr uint32_t kMaxWindowPixels = 16'384;

constexpr absl::string_view kSchemesWithHost[] = {
    "http", "https", "chrome", "chrome-extension", "chrome-untrusted", "devtools"};
constexpr absl::string_view kOtherSchemes[] = {"about", "blob", "data", "file"};

template <size_t size>
bool Contains(const absl::string_view (&schemes)[size], absl::string_view scheme) {
  return std::find(std::begin(schemes), std::end(schemes), scheme) != std::end(schemes);
}

absl::Status Refuse(absl::string_view url, absl::string_view why) {
  return absl::InvalidArgumentError(absl::StrCat("the url ", ShortQuote(url), " ", why));
}

bool IsControl(char character) {
  return static_cast<unsigned char>(character) < 0x20 || character == 0x7f;
}

// What is wrong with an address without blanks and control characters; empty if nothing is.
absl::string_view ProblemOf(absl::string_view url) {
  const size_t colon = url.find(':');
  if (colon == absl::string_view::npos || colon == 0) {
    return "is not absolute: it has no scheme, such as \"https:\"";
  }
  const std::string scheme = absl::AsciiStrToLower(url.substr(0, colon));
  const absl::string_view rest = url.substr(colon + 1);
  if (scheme == "view-source") return ProblemOf(rest);
  if (Contains(kOtherSchemes, scheme)) return "";
  if (!Contains(kSchemesWithHost, scheme)) return "has a scheme that no browser window opens";
  const bool has_host = absl::StartsWith(rest, "//") && rest.size() > 2 && rest[2] != '/' &&
                        rest[2] != '?' && rest[2] != '#';
  return has_host ? "" : "names no host";
}

}  // namespace

absl::Status CheckUrl(absl::string_view url) {
  if (url.empty()) return absl::OkStatus();
  if (url.size() > kMaxUrlBytes) {
    return Refuse(url, absl::StrCat("has ", url.size(), " bytes, and may have ", kMaxUrlBytes));
  }
  if (std::any_of(url.begin(), url.end(), IsControl)) {
    return Refuse(url, "has control characters");
  }
  if (url.front() == ' ' || url.back() == ' ') return Refuse(url, "has blanks around it");
  const absl::string_view problem = ProblemOf(url);
  return problem.empty() ? absl::OkStatus() : Refuse(url, problem);
}

absl::StatusOr<WindowOptions> WindowOptionsFrom(const rpc::BrowserOptions& options) {
  const absl::Status status = CheckUrl(options.url());
  if (!status.ok()) return status;
  WindowOptions window;
  window.url = options.url();
  window.headless = options.headless();
  if (options.has_window_position()) {
    window.position = {options.window_position().x(), options.window_position().y()};
  }
  if (options.has_window_size()) {
    const uint32_t width = options.window_size().width();
    const uint32_t height = options.window_size().height();
    if (std::min(width, height) == 0 || std::max(width, height) > kMaxWindowPixels) {
      return absl::InvalidArgumentError(absl::StrCat("the window's size ", width, " x ", height,
                                                     " is not between 1 and ", kMaxWindowPixels,
                                                     " pixels"));
    }
    window.size = {width, height};
  }
  return window;
}

absl::Status CheckDisplay(const WindowOptions& options) {
  if (options.headless) return absl::OkStatus();
  for (const char* variable : {"DISPLAY", "WAYLAND_DISPLAY"}) {
    const char* const display = std::getenv(variable);
    if (display != nullptr && *display != '\0') return absl::OkStatus();
  }
  return absl::FailedPreconditionError(
      "the host has no display to show a window on: ask for a headless browser, or start the host "
      "with DISPLAY or WAYLAND_DISPLAY set");
}

}  // namespace varnic::host
