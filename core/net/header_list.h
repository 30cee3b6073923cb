#ifndef CORE_NET_HEADER_LIST_H_
#define CORE_NET_HEADER_LIST_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace varnic::net {

// One header field. Views: whoever hands one out says how long it is valid.
struct HeaderField {
  std::string_view name;
  std::string_view value;
};

// The fields of one received header block, in their order. One block after another may be gathered
// in the same list without new memory. Its fields are views into it, valid until the next change.
class HeaderList {
 public:
  void Add(std::string_view name, std::string_view value);
  void Clear() { Truncate(0); }
  // Keeps the first `count` fields.
  void Truncate(std::size_t count);

  // Another one after each change, and never that of a list with other fields: what was found out
  // about a list holds as long as it has the same.
  std::uint64_t revision() const { return revision_; }

  std::size_t size() const { return fields_.size(); }
  HeaderField operator[](std::size_t i) const {
    const Extent& extent = fields_[i];
    const char* name = text_.data() + extent.offset;
    return {{name, extent.name_size}, {name + extent.name_size, extent.value_size}};
  }

  // The value of the first field of that name; a view with a null data() if there is none.
  std::string_view Find(std::string_view name) const;

 private:
  struct Extent {
    std::size_t offset;
    std::size_t name_size;
    std::size_t value_size;
  };

  std::vector<char> text_;  // What is behind `text_size_` is not used yet.
  std::size_t text_size_ = 0;
  std::vector<Extent> fields_;
  std::uint64_t revision_ = 0;
};

}  // namespace varnic::net

#endif  // CORE_NET_HEADER_LIST_H_
