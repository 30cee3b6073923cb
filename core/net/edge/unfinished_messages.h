#ifndef CORE_NET_EDGE_UNFINISHED_MESSAGES_H_
#define CORE_NET_EDGE_UNFINISHED_MESSAGES_H_

#include <cstddef>

#include "absl/status/status.h"

namespace varnic::net {

// Counts the bytes of messages that have not ended, on all calls of one connection together: each
// call may have one, and a client that leaves many of them unfinished would fill the memory.
//
// Outlives its shares. One thread only.
class UnfinishedMessages {
 public:
  // What one call has. Nothing is left of it in the count when it ends.
  class Share {
   public:
    explicit Share(UnfinishedMessages& all) : all_(all) {}
    Share(const Share&) = delete;
    Share& operator=(const Share&) = delete;
    ~Share() { Clear(); }

    // The call has so many bytes now. RESOURCE_EXHAUSTED if that is more than before, and too much
    // in all: the call has to end, and counts until it is cleared.
    [[nodiscard]] absl::Status Set(std::size_t bytes);
    void Clear();

   private:
    UnfinishedMessages& all_;
    std::size_t bytes_ = 0;
  };

  explicit UnfinishedMessages(std::size_t max_bytes) : max_bytes_(max_bytes) {}

  std::size_t bytes() const { return bytes_; }

 private:
  const std::size_t max_bytes_;
  std::size_t bytes_ = 0;
};

}  // namespace varnic::net

#endif  // CORE_NET_EDGE_UNFINISHED_MESSAGES_H_
