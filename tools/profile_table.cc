#include "tools/profile_table.h"

#include <algorithm>
#include <cstddef>
#include <vector>

#include "absl/strings/ascii.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_join.h"
#include "tools/happening.h"
#include "tools/safe_text.h"

namespace varnic::tools {
namespace {

using Row = std::vector<std::string>;

// Of a text that others have made; longer ones do not make good tables.
constexpr std::size_t kMaxTextBytes = 80;

// `rows` are equally long.
std::string FormatTable(const std::vector<Row>& rows) {
  Row::size_type columns = rows.front().size();
  std::vector<std::size_t> widths(columns);
  for (const Row& row : rows) {
    for (std::size_t i = 0; i < columns; ++i) {
      widths[i] = std::max(widths[i], CharacterCount(row[i]));
    }
  }
  std::string text;
  for (const Row& row : rows) {
    std::string line;
    for (std::size_t i = 0; i < columns; ++i) absl::StrAppend(&line, Pad(row[i], widths[i] + 2));
    absl::StrAppend(&text, absl::StripTrailingAsciiWhitespace(line), "\n");
  }
  return text;
}

}  // namespace

std::string FormatProfiles(const rpc::ProfileList& list) {
  std::vector<Row> rows = {{"ID", "NAME", "STATE", "BROWSERS"}};
  for (const rpc::ProfileInfo& profile : list.profiles()) {
    const std::string state = ProfileState(profile);
    rows.push_back({SafeWord(profile.id().value()), ShortWord(profile.name(), kMaxTextBytes),
                    state.empty() ? "-" : state, absl::StrCat(profile.browsers_size())});
  }
  return FormatTable(rows);
}

std::string FormatBrowsers(const rpc::BrowserList& list) {
  std::vector<Row> rows = {{"ID", "PROFILE", "KIND", "URL", "TITLE"}};
  for (const rpc::BrowserInfo& browser : list.browsers()) {
    rows.push_back({absl::StrCat(browser.id().value()), SafeWord(browser.profile_id().value()),
                    BrowserKind(browser), ShortWord(browser.url(), kMaxTextBytes),
                    ShortWord(browser.title(), kMaxTextBytes)});
  }
  return FormatTable(rows);
}

std::string FormatProfileId(const rpc::ProfileInfo& profile) {
  return EscapeUnprintable(profile.id().value()) + "\n";
}

std::string ProfileState(const rpc::ProfileInfo& profile) {
  std::vector<std::string> marks;
  if (profile.is_default()) marks.emplace_back("default");
  if (profile.is_incognito()) marks.emplace_back("incognito");
  if (profile.running()) marks.emplace_back("running");
  return absl::StrJoin(marks, ", ");
}

std::string BrowserKind(const rpc::BrowserInfo& browser) {
  return browser.headless() ? "headless" : "window";
}

}  // namespace varnic::tools
