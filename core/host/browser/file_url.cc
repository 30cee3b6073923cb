#include "core/host/browser/file_url.h"

#include <limits.h>

#include <algorithm>
#include <cstddef>

#include "absl/strings/match.h"
#include "absl/strings/string_view.h"
#include "core/net/percent_encoding.h"
#include "core/net/utf8_text.h"

namespace varnic::host {
namespace {

constexpr std::string_view kScheme = "file://";

absl::string_view View(std::string_view text) {
  return {text.data(), text.size()};
}

bool HasEncodedSeparator(std::string_view path) {
  return path.find("%2f") != std::string_view::npos || path.find("%2F") != std::string_view::npos ||
         path.find("%00") != std::string_view::npos || path.find('\0') != std::string_view::npos;
}

// False at a segment that leads elsewhere.
bool AppendSegment(std::string_view segment, std::string& path) {
  if (segment == "." || segment == "..") return false;
  if (!segment.empty()) path.append("/").append(segment);
  return true;
}

}  // namespace

bool IsFileUrl(std::string_view url) {
  return absl::StartsWithIgnoreCase(View(url), "file:");
}

absl::StatusOr<std::string> LocalPathOf(std::string_view url) {
  if (!absl::StartsWithIgnoreCase(View(url), View(kScheme))) {
    return absl::InvalidArgumentError("the URL is not that of a file");
  }
  std::string_view rest = url.substr(kScheme.size());
  rest = rest.substr(0, rest.find_first_of("?#"));
  const size_t slash = rest.find('/');
  if (slash == std::string_view::npos) return absl::InvalidArgumentError("the URL has no path");
  const std::string_view host = rest.substr(0, slash);
  if (!host.empty() && !absl::EqualsIgnoreCase(View(host), "localhost")) {
    return absl::InvalidArgumentError("the file is another host's");
  }
  if (HasEncodedSeparator(rest)) {
    return absl::InvalidArgumentError("the path has an encoded slash or NUL");
  }
  const std::string decoded = net::PercentDecode(rest.substr(slash));
  if (!net::IsUtf8(decoded)) return absl::InvalidArgumentError("the path is not UTF-8");
  std::string path;
  for (size_t begin = 0; begin < decoded.size();) {
    const size_t end = std::min(decoded.find('/', begin), decoded.size());
    if (!AppendSegment(std::string_view(decoded).substr(begin, end - begin), path)) {
      return absl::InvalidArgumentError("the path has a dot segment");
    }
    begin = end + 1;
  }
  if (path.size() >= PATH_MAX) return absl::InvalidArgumentError("the path is too long");
  return path.empty() ? "/" : path;
}

}  // namespace varnic::host
