#include "core/net/send_buffer.h"

#include <algorithm>
#include <utility>

namespace varnic::net {

void SendBuffer::Append(std::string piece) {
  Push({std::move(piece), nullptr});
}

void SendBuffer::AppendShared(std::shared_ptr<const std::string> piece) {
  Push({std::string(), std::move(piece)});
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
    taken_ = 0;
    if (bytes_ == 0) {
      first_ = Piece();
      rest_ = nullptr;
    } else {
      first_ = std::move(rest_->front());
      rest_->pop_front();
    }
  }
  return copied;
}

}  // namespace varnic::net
