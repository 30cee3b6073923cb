#include "core/net/metadata.h"

#include <algorithm>
#include <utility>

#include "absl/strings/escaping.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_split.h"

namespace varnic::net {
namespace {

// What HTTP/2 counts for a field besides its text (RFC 9113, section 6.5.2).
constexpr std::size_t kFieldOverhead = 32;

constexpr std::string_view kGrpcPrefix = "grpc-";
constexpr std::string_view kBinarySuffix = "-bin";

// Fields of HTTP and of gRPC's requests. The connection's own may not stand in HTTP/2 at all.
constexpr std::string_view kReserved[] = {
    "connection", "content-length", "content-type",      "host",    "keep-alive",
    "te",         "trailer",        "transfer-encoding", "upgrade", "proxy-connection"};

// What one connection may keep for the requests to come.
constexpr std::size_t kMaxKeptBytes = 1 << 10;

bool IsReserved(std::string_view key) {
  return key.substr(0, kGrpcPrefix.size()) == kGrpcPrefix ||
         std::find(std::begin(kReserved), std::end(kReserved), key) != std::end(kReserved);
}

// Of a request's fields: one that is neither HTTP's nor gRPC's.
bool IsCustom(std::string_view name) {
  return !name.empty() && name.front() != ':' && !IsReserved(name);
}

bool IsBinary(std::string_view key) {
  return key.size() >= kBinarySuffix.size() &&
         key.substr(key.size() - kBinarySuffix.size()) == kBinarySuffix;
}

bool IsKeyCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == '-' || c == '.';
}

// Blanks at the ends would be lost on the way.
bool IsText(std::string_view value) {
  if (!value.empty() && (value.front() == ' ' || value.back() == ' ')) return false;
  return std::all_of(value.begin(), value.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

absl::string_view View(std::string_view text) {
  return {text.data(), text.size()};
}

// gRPC writes base64 without padding, and reads it with or without.
std::string Base64(std::string_view bytes) {
  std::string encoded = absl::Base64Escape(View(bytes));
  encoded.erase(encoded.find_last_not_of('=') + 1);
  return encoded;
}

}  // namespace

Metadata Metadata::FromHeaders(const HeaderList& headers) {
  Metadata metadata;
  for (std::size_t i = 0; i < headers.size(); ++i) {
    const auto [name, value] = headers[i];
    if (IsCustom(name)) metadata.Append(name, std::string(value));
  }
  return metadata;
}

bool Metadata::IsOf(const HeaderList& headers) const {
  std::size_t next = 0;
  for (std::size_t i = 0; i < headers.size(); ++i) {
    const auto [name, value] = headers[i];
    if (!IsCustom(name)) continue;
    if (next == entries_.size()) return false;
    const Entry& entry = entries_[next++];
    if (entry.key != name || entry.value != value) return false;
  }
  return next == entries_.size();
}

absl::Status Metadata::Add(std::string_view key, std::string_view value) {
  if (key.empty() || !std::all_of(key.begin(), key.end(), IsKeyCharacter)) {
    return absl::InvalidArgumentError(
        absl::StrCat("A metadata key has lower-case letters, digits and \"_-.\" only: \"",
                     absl::CHexEscape(View(key)), "\""));
  }
  if (IsReserved(key)) {
    return absl::InvalidArgumentError(
        absl::StrCat("The metadata key \"", View(key), "\" is not the application's"));
  }
  if (!IsBinary(key) && !IsText(value)) {
    return absl::InvalidArgumentError(
        absl::StrCat("The metadata value of \"", View(key),
                     "\" has to be printable ASCII, without blanks at its ends; bytes of any kind "
                     "need a key that ends in \"-bin\""));
  }
  std::string wire = IsBinary(key) ? Base64(value) : std::string(value);
  const std::size_t size = size_bytes_ + key.size() + wire.size() + kFieldOverhead;
  if (size > kMaxBytes) {
    return absl::ResourceExhaustedError(absl::StrCat("The metadata with \"", View(key), "\" has ",
                                                     size, " of ", kMaxBytes, " bytes"));
  }
  Append(key, std::move(wire));
  return absl::OkStatus();
}

void Metadata::Append(std::string_view key, std::string value) {
  size_bytes_ += key.size() + value.size() + kFieldOverhead;
  entries_.push_back({std::string(key), std::move(value)});
}

std::optional<std::string> Metadata::Find(std::string_view key) const {
  std::vector<std::string> values = FindAll(key);
  if (values.empty()) return std::nullopt;
  return std::move(values.front());
}

std::vector<std::string> Metadata::FindAll(std::string_view key) const {
  std::vector<std::string> values;
  for (const Entry& entry : entries_) {
    if (entry.key != key) continue;
    if (!IsBinary(key)) {
      values.push_back(entry.value);
      continue;
    }
    // Proxies may join the values of a key with commas, which base64 has not.
    for (const absl::string_view part : absl::StrSplit(entry.value, ',')) {
      std::string bytes;
      if (absl::Base64Unescape(part, &bytes)) values.push_back(std::move(bytes));
    }
  }
  return values;
}

std::shared_ptr<const Metadata> MetadataMemo::Of(const HeaderList& headers) {
  if (last_ != nullptr && (revision_ == headers.revision() || last_->IsOf(headers))) {
    revision_ = headers.revision();
    return last_;
  }
  auto metadata = std::make_shared<const Metadata>(Metadata::FromHeaders(headers));
  if (metadata->size_bytes() > kMaxKeptBytes) return metadata;
  revision_ = headers.revision();
  return last_ = std::move(metadata);
}

}  // namespace varnic::net
