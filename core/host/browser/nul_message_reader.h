#ifndef CORE_HOST_BROWSER_NUL_MESSAGE_READER_H_
#define CORE_HOST_BROWSER_NUL_MESSAGE_READER_H_

#include <cstddef>
#include <string>
#include <string_view>

#include "absl/functional/function_ref.h"
#include "absl/status/status.h"

namespace varnic::host {

// Cuts what a browser writes to its DevTools pipe into messages, each of which ends with one NUL.
// Holds no more than one unfinished message. One thread.
class NulMessageReader {
 public:
  explicit NulMessageReader(size_t max_message_bytes) : max_message_bytes_(max_message_bytes) {}

  // Calls `on_message` with each message that is complete now, without its NUL and valid for the
  // call; empty ones are left out. If it returns false, the rest of `bytes` is dropped; it may have
  // destroyed the reader then. RESOURCE_EXHAUSTED once a message is too long: read no more.
  [[nodiscard]] absl::Status Read(std::string_view bytes,
                                  absl::FunctionRef<bool(std::string_view message)> on_message);

  // Of the message that is not complete yet.
  size_t unfinished_bytes() const { return unfinished_.size(); }

 private:
  const size_t max_message_bytes_;
  std::string unfinished_;
};

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_NUL_MESSAGE_READER_H_
