#include "core/net/header_list.h"

#include <algorithm>
#include <atomic>

namespace varnic::net {
namespace {

std::uint64_t NextRevision() {
  // Of all threads: a loop, with the lists of its connections, may go from one to another.
  static std::atomic<std::uint64_t> last = 0;
  return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

}  // namespace

void HeaderList::Add(std::string_view name, std::string_view value) {
  const std::size_t end = text_size_ + name.size() + value.size();
  if (end > text_.size()) text_.resize(std::max(end, 2 * text_.size()));
  const auto begin = text_.begin() + static_cast<std::ptrdiff_t>(text_size_);
  std::copy(value.begin(), value.end(), std::copy(name.begin(), name.end(), begin));
  fields_.push_back({text_size_, name.size(), value.size()});
  text_size_ = end;
  revision_ = NextRevision();
}

void HeaderList::Truncate(std::size_t count) {
  if (count >= fields_.size()) return;
  text_size_ = fields_[count].offset;
  fields_.resize(count);
  revision_ = count == 0 ? 0 : NextRevision();
}

std::string_view HeaderList::Find(std::string_view name) const {
  for (std::size_t i = 0; i < fields_.size(); ++i) {
    const HeaderField field = (*this)[i];
    if (field.name == name) return field.value;
  }
  return {};
}

}  // namespace varnic::net
