#ifndef CORE_NET_METADATA_H_
#define CORE_NET_METADATA_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "absl/status/status.h"
#include "core/net/header_list.h"

namespace varnic::net {

// What one end of a call says besides its messages: gRPC's custom metadata. Keys are lower-case and
// may come more than once; their order is kept. The value of a key that ends in "-bin" is any
// bytes, which stand on the wire in base64; any other value is printable ASCII.
class Metadata {
 public:
  struct Entry {
    std::string key;
    std::string value;  // As it stands on the wire, in base64 for example.
  };

  // The most that Add() takes in all, counted on the wire with 32 bytes for each entry, as HTTP/2
  // does. Many clients refuse an answer with more than 8 KiB of header fields, of which gRPC's own
  // need a part.
  static constexpr std::size_t kMaxBytes = 4 << 10;

  // The custom fields of a request: everything but HTTP's and gRPC's own fields.
  static Metadata FromHeaders(const HeaderList& headers);
  // Whether that would give what is here.
  bool IsOf(const HeaderList& headers) const;

  // INVALID_ARGUMENT for a key or a value that gRPC does not allow, or a key that gRPC or HTTP have
  // for themselves; RESOURCE_EXHAUSTED above kMaxBytes. Nothing is added then.
  [[nodiscard]] absl::Status Add(std::string_view key, std::string_view value);

  // The value of the first entry of that key, and those of all; of a "-bin" key, the bytes. What is
  // no base64 is left out.
  std::optional<std::string> Find(std::string_view key) const;
  std::vector<std::string> FindAll(std::string_view key) const;

  const std::vector<Entry>& entries() const { return entries_; }
  bool empty() const { return entries_.empty(); }
  // Counted as for kMaxBytes.
  std::size_t size_bytes() const { return size_bytes_; }

 private:
  void Append(std::string_view key, std::string value);

  std::vector<Entry> entries_;
  std::size_t size_bytes_ = 0;
};

// The metadata of the requests of one connection, of which each mostly says what the one before it
// said: such requests share it.
class MetadataMemo {
 public:
  std::shared_ptr<const Metadata> Of(const HeaderList& headers);

 private:
  std::shared_ptr<const Metadata> last_;  // Null until there is any that is not large.
  std::uint64_t revision_ = 0;            // Of headers that say just that.
};

}  // namespace varnic::net

#endif  // CORE_NET_METADATA_H_
