#ifndef CORE_NET_SEND_BUFFER_H_
#define CORE_NET_SEND_BUFFER_H_

#include <cstddef>
#include <deque>
#include <memory>
#include <string>
#include <string_view>

namespace varnic::net {

// The bytes of one stream that HTTP/2 has not taken yet. Small pieces are copied together; a large
// one may be shared with other streams, which then all point to the same bytes. When it is empty
// it keeps a little memory for the next piece.
class SendBuffer {
 public:
  // A shared piece up to this size costs less to copy than to share.
  static constexpr std::size_t kSmall = 512;

  void Append(std::string piece);
  void AppendCopy(std::string_view piece);
  void AppendShared(std::shared_ptr<const std::string> piece);

  // Moves up to `size` bytes from the front to `buffer`; returns how many.
  std::size_t Take(char* buffer, std::size_t size);

  bool empty() const { return bytes_ == 0; }
  std::size_t bytes() const { return bytes_; }

 private:
  struct Piece {
    std::string owned;
    std::shared_ptr<const std::string> shared;  // Null if the piece is owned.

    const std::string& bytes() const { return shared == nullptr ? owned : *shared; }
  };

  Piece& last() { return rest_ == nullptr ? first_ : rest_->back(); }
  bool Join(std::string_view piece);
  void Push(Piece piece);
  void DropFirst();

  // The first piece, which is the only one of most streams, stands outside: a deque takes half a
  // kilobyte as soon as it exists.
  Piece first_;
  std::unique_ptr<std::deque<Piece>> rest_;  // Null if there are no more.
  std::size_t taken_ = 0;                    // Of the first piece.
  std::size_t bytes_ = 0;
};

}  // namespace varnic::net

#endif  // CORE_NET_SEND_BUFFER_H_
