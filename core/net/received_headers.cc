#include "core/net/received_headers.h"

#include <nghttp2/nghttp2.h>

#include <string_view>

namespace varnic::net {
namespace {

// What RFC 9113, section 6.5.2, adds to the size of each field.
constexpr std::size_t kFieldOverhead = 32;

// Buffers are kept for blocks up to this size.
constexpr std::size_t kMaxKeptBytes = 2 << 10;

std::string_view TextOf(nghttp2_rcbuf* buffer) {
  const nghttp2_vec text = nghttp2_rcbuf_get_buf(buffer);
  return {reinterpret_cast<const char*>(text.base), text.len};
}

}  // namespace

void ReceivedHeaders::Begin() {
  next_ = 0;
  left_out_ = 0;
}

void ReceivedHeaders::AddOther(nghttp2_rcbuf* name, nghttp2_rcbuf* value) {
  const HeaderField field = {TextOf(name), TextOf(value)};
  const std::size_t size = field.name.size() + field.value.size() + kFieldOverhead;
  const std::size_t end = bytes() + size;
  if (end > max_bytes_) {
    left_out_ += size;
    return;
  }
  if (next_ < fields_.size()) {
    const HeaderField former = fields_[next_];
    if (former.name == field.name && former.value == field.value) {
      ++next_;
      return;
    }
    Truncate(next_);
  }
  fields_.Add(field.name, field.value);
  ++next_;
  if (end > kMaxKeptBytes) return kept_.push_back({nullptr, nullptr, end});
  nghttp2_rcbuf_incref(name);
  nghttp2_rcbuf_incref(value);
  kept_.push_back({name, value, end});
}

const HeaderList& ReceivedHeaders::End() {
  Truncate(next_);
  return fields_;
}

void ReceivedHeaders::Truncate(std::size_t count) {
  fields_.Truncate(count);
  for (; kept_.size() > count; kept_.pop_back()) {
    if (kept_.back().name == nullptr) continue;
    nghttp2_rcbuf_decref(kept_.back().name);
    nghttp2_rcbuf_decref(kept_.back().value);
  }
}

}  // namespace varnic::net
