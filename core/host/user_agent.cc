#include "core/host/user_agent.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>
#include <vector>

#include "absl/status/status.h"
#include "absl/strings/ascii.h"
#include "absl/strings/escaping.h"
#include "absl/strings/match.h"
#include "absl/strings/numbers.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_split.h"

namespace varnic::host {
namespace {

constexpr size_t kMaxUserAgentBytes = 1024;

struct Brand {
  std::string name;
  std::string significant_version;
  std::string full_version;
};

uint32_t MajorOf(absl::string_view version) {
  uint32_t major = 0;
  const bool is_number = absl::SimpleAtoi(version.substr(0, version.find('.')), &major);
  return is_number ? major : 0;
}

// Every list of brands has one that is no brand, so that sites learn to ignore names that they do
// not know. Its punctuation and version walk through fixed lists with the browser's major version.
Brand MeaninglessBrand(uint32_t major) {
  constexpr absl::string_view kPunctuation = " (:-./);=?_";
  constexpr std::array<absl::string_view, 3> kVersions = {"8", "99", "24"};
  const size_t first = major % kPunctuation.size();
  const size_t second = (major + 1) % kPunctuation.size();
  const absl::string_view version = kVersions[major % kVersions.size()];
  return {absl::StrCat("Not", kPunctuation.substr(first, 1), "A", kPunctuation.substr(second, 1),
                       "Brand"),
          std::string(version), absl::StrCat(version, ".0.0.0")};
}

// Puts `brands` (the meaningless one, the engine, perhaps the product) into the order of this major
// version: the orders of two or three things, counted through so that no site relies on a place.
std::vector<Brand> InOrderOf(uint32_t major, std::vector<Brand> brands) {
  std::vector<size_t> place_of(brands.size());
  for (size_t i = 0; i < place_of.size(); ++i) place_of[i] = i;
  const size_t orders = brands.size() == 2 ? 2 : 6;
  for (size_t i = 0; i < major % orders; ++i) {
    std::next_permutation(place_of.begin(), place_of.end());
  }
  std::vector<Brand> ordered(brands.size());
  for (size_t i = 0; i < brands.size(); ++i) ordered[place_of[i]] = std::move(brands[i]);
  return ordered;
}

// Only Chrome adds a brand of its own; other products built from Chromium differ in more than that.
void SetVersion(const BrowserVersion& browser, rpc::UserAgentMetadata& metadata) {
  constexpr absl::string_view kChrome = "Google Chrome";
  const uint32_t major = MajorOf(browser.version);
  const std::string significant = absl::StrCat(major);
  std::vector<Brand> brands = {MeaninglessBrand(major), {"Chromium", significant, browser.version}};
  if (browser.product == kChrome) {
    brands.push_back({browser.product, significant, browser.version});
  }
  for (const Brand& brand : InOrderOf(major, std::move(brands))) {
    rpc::UserAgentMetadata::BrandVersion* entry = metadata.add_brands();
    entry->set_brand(brand.name);
    entry->set_version(brand.significant_version);
    entry = metadata.add_full_version_list();
    entry->set_brand(brand.name);
    entry->set_version(brand.full_version);
  }
  metadata.set_full_version(browser.version);
}

// The version of a platform stays empty: Linux has none, and a string does not tell it.
void SetPlatform(absl::string_view platform, rpc::UserAgentMetadata& metadata) {
  metadata.set_platform(std::string(platform));
#if defined(__aarch64__) || defined(__arm__)
  metadata.set_architecture("arm");
#else
  metadata.set_architecture("x86");
#endif
  metadata.set_bitness(sizeof(void*) == 8 ? "64" : "32");
  metadata.add_form_factors("Desktop");
}

// The hints of a platform that is only claimed: telephones and tablets tell no processor.
void SetClaimedPlatform(absl::string_view text, rpc::UserAgentMetadata& metadata) {
  struct Platform {
    absl::string_view token;
    absl::string_view name;
  };
  // A string for Android names Linux too.
  constexpr Platform kPlatforms[] = {{"Android", "Android"},
                                     {"CrOS", "Chrome OS"},
                                     {"Windows", "Windows"},
                                     {"Macintosh", "macOS"},
                                     {"Linux", "Linux"}};
  const auto* platform =
      std::find_if(std::begin(kPlatforms), std::end(kPlatforms),
                   [text](const Platform& p) { return absl::StrContains(text, p.token); });
  SetPlatform(platform == std::end(kPlatforms) ? "Unknown" : platform->name, metadata);
  metadata.set_mobile(absl::StrContains(text, " Mobile"));
  if (metadata.platform() != "Android") return;
  metadata.clear_architecture();
  metadata.clear_bitness();
  metadata.set_form_factors(0, metadata.mobile() ? "Mobile" : "Tablet");
}

// The version after "Chrome/", or nothing.
absl::string_view ChromeVersionIn(absl::string_view text) {
  constexpr absl::string_view kToken = "Chrome/";
  const size_t token = text.find(kToken);
  if (token == absl::string_view::npos) return {};
  const absl::string_view rest = text.substr(token + kToken.size());
  const absl::string_view version = rest.substr(0, rest.find_first_not_of("0123456789."));
  return MajorOf(version) == 0 ? absl::string_view() : version;
}

bool IsPrintable(absl::string_view text) {
  return std::all_of(text.begin(), text.end(), absl::ascii_isprint);
}

}  // namespace

UserAgent UserAgentOf(const BrowserVersion& browser) {
  UserAgent user_agent;
  user_agent.text =
      absl::StrCat("Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/",
                   MajorOf(browser.version), ".0.0.0 Safari/537.36");
  SetVersion(browser, user_agent.metadata);
  SetPlatform("Linux", user_agent.metadata);
  return user_agent;
}

absl::StatusOr<UserAgent> UserAgentFromText(absl::string_view text) {
  if (text.empty() || text.size() > kMaxUserAgentBytes || !IsPrintable(text)) {
    return absl::InvalidArgumentError(
        absl::StrCat("the user agent \"", absl::CHexEscape(text.substr(0, 100)), "\" is not 1 to ",
                     kMaxUserAgentBytes, " printable ASCII characters"));
  }
  UserAgent user_agent;
  user_agent.text = std::string(text);
  const absl::string_view version = ChromeVersionIn(text);
  if (!version.empty()) {
    SetVersion({"Chromium", std::string(version)}, user_agent.metadata);
  }
  SetClaimedPlatform(text, user_agent.metadata);
  return user_agent;
}

}  // namespace varnic::host
