#ifndef CORE_NET_MESSAGE_FRAMING_H_
#define CORE_NET_MESSAGE_FRAMING_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "absl/functional/function_ref.h"
#include "absl/status/status.h"

namespace varnic::net {

// What stands before each message on the wire (gRPC's PROTOCOL-HTTP2, "Length-Prefixed-Message"): a
// byte that says whether the message is compressed, and its length, four bytes, big endian.
using MessagePrefix = std::array<char, 5>;

MessagePrefix MakeMessagePrefix(uint32_t message_size, bool compressed = false);
// The same, of a message that is not compressed, to `out`. Returns where the message goes.
char* WriteMessagePrefix(uint32_t message_size, char* out);

// Cuts the DATA of one direction of a call into messages. DATA frames may break it anywhere.
//
// A message that lies whole within a chunk is handed out where it lies. Any other is gathered in a
// buffer, which grows with the bytes that arrive, not with the length that the peer announces, and
// which is given back after a large message.
//
// One thread. Owns nothing but its buffer.
class MessageReader {
 public:
  // `message` is valid for the call. Called from inside Read(); it may neither call Read() nor
  // destroy the reader. To get no more messages, return an error.
  using OnMessage = absl::FunctionRef<absl::Status(std::string_view message, bool compressed)>;

  explicit MessageReader(size_t max_message_size) : max_message_size_(max_message_size) {}

  // Takes all of `chunk` and calls `on_message` for each message that it completes.
  //
  // RESOURCE_EXHAUSTED: a message is announced that is larger than allowed. INTERNAL: a prefix is
  // not one. Otherwise an error is what `on_message` returned. With an error the place in the
  // stream is lost: further calls read nothing and return it again.
  [[nodiscard]] absl::Status Read(std::string_view chunk, OnMessage on_message);

  // To be called at the end of the stream. INTERNAL if that is in the middle of a message; the
  // error of Read() if there was one.
  [[nodiscard]] absl::Status Finish() const;

  // True while a message has begun and not ended. False inside `on_message`.
  bool mid_message() const { return prefix_filled_ > 0; }

  // How much of a message that has not ended was gathered; without its prefix.
  size_t unfinished_bytes() const { return mid_message() ? gathered_.size() : 0; }

  // Gives back what there is of a message that has not ended, and its buffer. Nothing is to be read
  // afterwards. Does nothing inside `on_message`.
  void Discard();

  // What the buffer takes up.
  size_t buffer_capacity() const { return gathered_.capacity(); }

 private:
  absl::Status ReadPiece(std::string_view& chunk, OnMessage on_message);
  void FillPrefix(std::string_view& chunk);
  absl::Status CheckPrefix() const;
  absl::Status DeliverGathered(OnMessage on_message);
  bool prefix_complete() const { return prefix_filled_ == prefix_.size(); }
  // Both: once the prefix is complete.
  bool compressed() const { return prefix_[0] != 0; }
  size_t message_size() const;

  const size_t max_message_size_;
  MessagePrefix prefix_ = {};
  size_t prefix_filled_ = 0;
  std::string gathered_;  // Shorter than message_size(), except while it is being delivered.
  absl::Status failure_;
};

}  // namespace varnic::net

#endif  // CORE_NET_MESSAGE_FRAMING_H_
