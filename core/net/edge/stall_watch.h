#ifndef CORE_NET_EDGE_STALL_WATCH_H_
#define CORE_NET_EDGE_STALL_WATCH_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "absl/container/flat_hash_map.h"
#include "absl/time/time.h"
#include "absl/types/span.h"
#include "core/net/loop_clock.h"

namespace varnic::net {

// Whether what waits moves at all: all that waited at one look, or a kilobyte of it, has to be gone
// at a later one. Less is what a peer reads that means to keep it waiting.
class ProgressMark {
 public:
  // How long too little has moved; `moved` counts all that ever did. Call Clear() when nothing
  // waits.
  absl::Duration Look(LoopClock::time_point now, std::uint64_t moved, std::size_t waiting);
  void Clear() { since_.reset(); }

 private:
  std::optional<LoopClock::time_point> since_;
  std::uint64_t goal_ = 0;
};

// The output of one connection that waits for its peer.
struct WaitingOutput {
  struct Stream {
    std::int32_t id = 0;
    std::uint64_t sent = 0;      // Bytes of its messages, over its life.
    std::size_t queued = 0;      // More than zero.
    bool window_closed = false;  // The stream's own, not the connection's.
  };

  bool empty() const { return unwritten == 0 && streams.empty(); }

  std::uint64_t written = 0;  // To the socket, over the connection's life.
  std::size_t unwritten = 0;  // What the socket has not taken yet.
  std::uint64_t sent = 0;     // As above, of all streams.
  std::size_t queued = 0;
  bool window_closed = false;  // The connection's.
  std::vector<Stream> streams;
  std::size_t open_streams = 0;  // Those for which nothing waits among them.
};

// Tells which streams, or whether the whole connection, wait for a peer that reads nothing. What a
// peer has not been sent yet for other reasons is not held against it. Keeps something only for
// what waits.
class StallWatch {
 public:
  struct Verdict {
    bool connection = false;
    std::vector<std::int32_t> streams;
  };

  explicit StallWatch(absl::Duration timeout) : timeout_(timeout) {}

  // Look a few times in `timeout` while something waits, and once more.
  Verdict Look(LoopClock::time_point now, const WaitingOutput& output);

 private:
  bool IsStalled(ProgressMark& mark, LoopClock::time_point now, std::uint64_t moved,
                 std::size_t waiting) const;

  const absl::Duration timeout_;
  ProgressMark socket_;
  ProgressMark window_;
  absl::flat_hash_map<std::int32_t, ProgressMark> streams_;
};

}  // namespace varnic::net

#endif  // CORE_NET_EDGE_STALL_WATCH_H_
