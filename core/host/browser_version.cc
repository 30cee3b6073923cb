#include "core/host/browser_version.h"

#include <algorithm>
#include <vector>

#include "absl/status/status.h"
#include "absl/strings/ascii.h"
#include "absl/strings/escaping.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_join.h"
#include "absl/strings/str_split.h"
#include "core/host/child_output.h"

namespace varnic::host {
namespace {

constexpr size_t kMaxOutputBytes = 4 << 10;
constexpr size_t kMaxNumberDigits = 9;

bool IsVersion(absl::string_view word) {
  const std::vector<absl::string_view> numbers = absl::StrSplit(word, '.');
  const auto is_number = [](absl::string_view text) {
    return !text.empty() && text.size() <= kMaxNumberDigits &&
           std::all_of(text.begin(), text.end(), absl::ascii_isdigit);
  };
  return numbers.size() == 4 && std::all_of(numbers.begin(), numbers.end(), is_number);
}

absl::StatusOr<BrowserVersion> AskForVersion(const std::string& browser, absl::Duration timeout) {
  const absl::StatusOr<std::string> output =
      ReadChildOutput({browser, "--version"}, {kMaxOutputBytes, timeout});
  if (!output.ok()) return output.status();
  absl::StatusOr<BrowserVersion> version = ParseBrowserVersion(*output);
  if (version.ok()) return version;
  return absl::FailedPreconditionError(
      absl::StrCat("\"", browser, " --version\": ", version.status().message()));
}

}  // namespace

absl::StatusOr<BrowserVersion> ParseBrowserVersion(absl::string_view output) {
  for (absl::string_view line : absl::StrSplit(output, absl::ByAnyChar("\r\n"))) {
    const std::vector<absl::string_view> words = absl::StrSplit(line, ' ', absl::SkipEmpty());
    const auto version = std::find_if(words.begin(), words.end(), IsVersion);
    if (version == words.begin() || version == words.end()) continue;
    return BrowserVersion{absl::StrJoin(words.begin(), version, " "), std::string(*version)};
  }
  return absl::InvalidArgumentError(
      absl::StrCat("no browser version in \"", absl::CHexEscape(output.substr(0, 100)), "\""));
}

absl::StatusOr<BrowserVersion> LookUpBrowserVersion(const std::string& browser,
                                                    absl::Duration timeout) {
  std::vector<std::string> candidates = {browser};
  if (browser.empty()) candidates = {"/usr/bin/chromium", "chromium"};
  std::vector<std::string> failures;
  for (const std::string& candidate : candidates) {
    absl::StatusOr<BrowserVersion> version = AskForVersion(candidate, timeout);
    if (version.ok() || absl::IsUnavailable(version.status())) return version;
    failures.emplace_back(version.status().message());
  }
  return absl::FailedPreconditionError(
      absl::StrCat("no browser tells its version: ", absl::StrJoin(failures, "; ")));
}

}  // namespace varnic::host
