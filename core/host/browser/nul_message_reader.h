#ifndef CORE_HOST_BROWSER_NUL_MESSAGE_READER_H_
#define CORE_HOST_BROWSER_NUL_MESSAGE_READER_H_

#include <cstddef>
#include <string>
#include <string_view>

#include "absl/functional/function_ref.h"

namespace varnic::host {

// Without its NUL.
struct NulMessage {
  std::string_view text;    // Of one that is too long, its beginning.
  std::string_view ending;  // Of one that is too long; empty for all others.
};

// Cuts what a browser writes to its DevTools pipe into messages, each of which ends with one NUL.
// Holds no more than one unfinished message. One thread.
class NulMessageReader {
 public:
  // What is kept of a message that is too long: enough for the longest URL, and for a session.
  static constexpr size_t kTextBytes = 4 << 20;
  static constexpr size_t kEndingBytes = 256;

  explicit NulMessageReader(size_t max_message_bytes) : max_message_bytes_(max_message_bytes) {}

  // Calls `on_message` with each message that is complete now, valid for the call; empty ones are
  // left out. If it returns false, the rest of `bytes` is dropped; it may have destroyed the reader
  // then.
  void Read(std::string_view bytes, absl::FunctionRef<bool(const NulMessage& message)> on_message);

  // Of the message that is not complete yet.
  size_t unfinished_bytes() const { return unfinished_.size() + ending_.size(); }

 private:
  void Keep(std::string_view piece);

  const size_t max_message_bytes_;
  std::string unfinished_;
  std::string ending_;  // Empty unless the message is too long already.
};

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_NUL_MESSAGE_READER_H_
