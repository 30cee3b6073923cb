#ifndef CORE_NET_RECEIVED_HEADERS_H_
#define CORE_NET_RECEIVED_HEADERS_H_

#include <cstddef>
#include <vector>

#include "core/net/header_list.h"

struct nghttp2_rcbuf;

namespace varnic::net {

// Gathers header blocks as nghttp2 hands them out, one after the other. Most blocks of a connection
// say what the one before them has said, and HTTP/2 refers to what it has said before: such fields
// come in the very same buffers again, and are left as they are. A list that did not change keeps
// its revision.
class ReceivedHeaders {
 public:
  // Of a block with more bytes than `max_bytes`, the rest is counted and not kept.
  explicit ReceivedHeaders(std::size_t max_bytes) : max_bytes_(max_bytes) {}
  ReceivedHeaders(const ReceivedHeaders&) = delete;
  ReceivedHeaders& operator=(const ReceivedHeaders&) = delete;
  ~ReceivedHeaders() { Truncate(0); }

  // A block begins, and its fields follow.
  void Begin();
  void Add(nghttp2_rcbuf* name, nghttp2_rcbuf* value) {
    const bool is_same =
        next_ < kept_.size() && kept_[next_].name == name && kept_[next_].value == value;
    if (!is_same) return AddOther(name, value);
    ++next_;
  }
  // All of them are there. Valid until the next block.
  const HeaderList& End();

  // Of the block, as RFC 9113, section 6.5.2, counts them.
  std::size_t bytes() const { return left_out_ + (next_ == 0 ? 0 : kept_[next_ - 1].end); }
  // Forgets the block.
  void Clear() {
    Begin();
    Truncate(0);
  }

 private:
  // What a field came in. Kept, so that no other field can come in the same; null for fields of
  // large blocks, which would take up memory twice.
  struct Kept {
    nghttp2_rcbuf* name;
    nghttp2_rcbuf* value;
    std::size_t end;  // Bytes of the block up to here.
  };

  void AddOther(nghttp2_rcbuf* name, nghttp2_rcbuf* value);
  void Truncate(std::size_t count);

  const std::size_t max_bytes_;
  std::size_t left_out_ = 0;  // Bytes of what is not kept.
  // Of `fields_`: those before it are the block's, the others are of the block before it.
  std::size_t next_ = 0;
  HeaderList fields_;
  std::vector<Kept> kept_;  // One for each field.
};

}  // namespace varnic::net

#endif  // CORE_NET_RECEIVED_HEADERS_H_
