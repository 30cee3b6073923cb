#include "core/net/send_buffer.h"

#include <algorithm>
#include <utility>

namespace varnic::net {
namespace {

// Memory is given back in pieces of this size.
constexpr std::size_t kMaxJoinedBytes = 16 << 10;

}  // namespace

void SendBuffer::Append(std::string piece) {
  if (!Join(piece)) Push({std::move(piece), nullptr});
}

void SendBuffer::AppendCopy(std::string_view piece) {
  if (!Join(piece)) Push({std::string(piece), nullptr});
}

void SendBuffer::AppendShared(std::shared_ptr<const std::string> piece) {
  if (piece->size() > kSmall) return Push({std::string(), std::move(piece)});
  if (!Join(*piece)) Push({*piece, nullptr});
}

// Copies a small piece into the memory that is there.
bool SendBuffer::Join(std::string_view piece) {
  if (piece.size() > kSmall || last().shared != nullptr) return false;
  std::string& joined = last().owned;
  // A first piece brings its own memory.
  if (bytes_ == 0 && joined.capacity() < piece.size()) return false;
  if (joined.size() + piece.size() > kMaxJoinedBytes) return false;
  joined.append(piece);
  bytes_ += piece.size();
  return true;
}

void SendBuffer::Push(Piece piece) {
  const std::size_t size = piece.bytes().size();
  if (size == 0) return;
  if (bytes_ == 0) {
    first_ = std::move(piece);
  } else {
    if (rest_ == nullptr) rest_ = std::make_unique<std::deque<Piece>>();
    rest_->push_back(std::move(piece));
  }
  bytes_ += size;
}

std::size_t SendBuffer::Take(char* buffer, std::size_t size) {
  std::size_t copied = 0;
  while (copied < size && bytes_ > 0) {
    const std::string& front = first_.bytes();
    const std::size_t step = front.copy(buffer + copied, size - copied, taken_);
    copied += step;
    taken_ += step;
    bytes_ -= step;
    if (taken_ < front.size()) break;
    DropFirst();
  }
  return copied;
}

void SendBuffer::DropFirst() {
  taken_ = 0;
  if (rest_ != nullptr) {
    first_ = std::move(rest_->front());
    rest_->pop_front();
    if (rest_->empty()) rest_ = nullptr;
  } else if (first_.shared != nullptr || first_.owned.capacity() > kSmall) {
    first_ = Piece();
  } else {
    first_.owned.clear();
  }
}

}  // namespace varnic::net
