#include "core/net/header_list.h"

#include <algorithm>

namespace varnic::net {

void HeaderList::Add(std::string_view name, std::string_view value) {
  const std::size_t end = text_size_ + name.size() + value.size();
  if (end > text_.size()) text_.resize(std::max(end, 2 * text_.size()));
  const auto begin = text_.begin() + static_cast<std::ptrdiff_t>(text_size_);
  std::copy(value.begin(), value.end(), std::copy(name.begin(), name.end(), begin));
  fields_.push_back({text_size_, name.size(), value.size()});
  text_size_ = end;
}

void HeaderList::Clear() {
  text_size_ = 0;
  fields_.clear();
}

std::string_view HeaderList::Find(std::string_view name) const {
  for (std::size_t i = 0; i < fields_.size(); ++i) {
    const HeaderField field = (*this)[i];
    if (field.name == name) return field.value;
  }
  return {};
}

}  // namespace varnic::net
