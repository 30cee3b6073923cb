#include "core/net/header_list.h"

namespace varnic::net {

void HeaderList::Add(std::string_view name, std::string_view value) {
  fields_.push_back({text_.size(), name.size(), value.size()});
  text_.append(name).append(value);
}

void HeaderList::Clear() {
  text_.clear();
  fields_.clear();
}

HeaderField HeaderList::operator[](std::size_t i) const {
  const Extent& extent = fields_[i];
  const std::string_view text(text_);
  return {text.substr(extent.offset, extent.name_size),
          text.substr(extent.offset + extent.name_size, extent.value_size)};
}

std::string_view HeaderList::Find(std::string_view name) const {
  for (std::size_t i = 0; i < fields_.size(); ++i) {
    const HeaderField field = (*this)[i];
    if (field.name == name) return field.value;
  }
  return {};
}

}  // namespace varnic::net
