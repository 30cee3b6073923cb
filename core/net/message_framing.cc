#include "core/net/message_framing.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

#include "absl/strings/str_cat.h"

namespace varnic::net {
namespace {

// A buffer up to this size is kept for the next message: enough for one that fills a DATA frame of
// HTTP/2's default size and is broken by the frame's end.
constexpr size_t kKeptBufferSize = 16 * 1024;

std::string_view TakeUpTo(size_t size, std::string_view& chunk) {
  const std::string_view piece = chunk.substr(0, size);
  chunk.remove_prefix(piece.size());
  return piece;
}

}  // namespace

MessagePrefix MakeMessagePrefix(uint32_t message_size, bool compressed) {
  return {static_cast<char>(compressed ? 1 : 0), static_cast<char>(message_size >> 24),
          static_cast<char>(message_size >> 16), static_cast<char>(message_size >> 8),
          static_cast<char>(message_size)};
}

// In one piece: whoever copies bytes that were written one by one waits for all of them.
char* WriteMessagePrefix(uint32_t message_size, char* out) {
  const uint32_t size = htonl(message_size);
  *out = 0;
  std::memcpy(out + 1, &size, sizeof(size));
  return out + 1 + sizeof(size);
}

absl::Status MessageReader::Read(std::string_view chunk, OnMessage on_message) {
  while (!chunk.empty() && failure_.ok()) failure_ = ReadPiece(chunk, on_message);
  return failure_;
}

absl::Status MessageReader::Finish() const {
  if (!failure_.ok() || !mid_message()) return failure_;
  if (!prefix_complete()) {
    return absl::InternalError(
        absl::StrCat("the stream ended in the middle of a message: ", prefix_filled_,
                     " of the prefix's ", prefix_.size(), " bytes arrived"));
  }
  return absl::InternalError(
      absl::StrCat("the stream ended in the middle of a message: ", gathered_.size(), " of ",
                   message_size(), " bytes arrived"));
}

void MessageReader::Discard() {
  if (!mid_message()) return;
  prefix_filled_ = 0;
  std::string().swap(gathered_);
}

// Reads up to the end of one message or of the chunk, whichever comes first.
absl::Status MessageReader::ReadPiece(std::string_view& chunk, OnMessage on_message) {
  if (!prefix_complete()) {
    FillPrefix(chunk);
    if (!prefix_complete()) return absl::OkStatus();
    if (absl::Status status = CheckPrefix(); !status.ok()) return status;
  }
  const size_t size = message_size();
  if (gathered_.empty() && chunk.size() >= size) {
    const std::string_view message = TakeUpTo(size, chunk);
    prefix_filled_ = 0;
    return on_message(message, compressed());
  }
  gathered_.append(TakeUpTo(size - gathered_.size(), chunk));
  return gathered_.size() < size ? absl::OkStatus() : DeliverGathered(on_message);
}

void MessageReader::FillPrefix(std::string_view& chunk) {
  const std::string_view piece = TakeUpTo(prefix_.size() - prefix_filled_, chunk);
  std::copy(piece.begin(), piece.end(), prefix_.begin() + prefix_filled_);
  prefix_filled_ += piece.size();
}

absl::Status MessageReader::CheckPrefix() const {
  const int flag = static_cast<unsigned char>(prefix_[0]);
  if (flag > 1) {
    return absl::InternalError(
        absl::StrCat("a message starts with the compressed flag ", flag, "; only 0 and 1 exist"));
  }
  if (message_size() > max_message_size_) {
    return absl::ResourceExhaustedError(absl::StrCat("received message is larger than allowed (",
                                                     message_size(), " vs. ", max_message_size_,
                                                     " bytes)"));
  }
  return absl::OkStatus();
}

absl::Status MessageReader::DeliverGathered(OnMessage on_message) {
  prefix_filled_ = 0;
  absl::Status status = on_message(gathered_, compressed());
  gathered_.clear();
  if (gathered_.capacity() > kKeptBufferSize) std::string().swap(gathered_);
  return status;
}

size_t MessageReader::message_size() const {
  size_t size = 0;
  for (size_t i = 1; i < prefix_.size(); ++i) {
    size = size << 8 | static_cast<unsigned char>(prefix_[i]);
  }
  return size;
}

}  // namespace varnic::net
