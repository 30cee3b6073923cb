#ifndef CORE_NET_EDGE_FLOOD_LIMITS_H_
#define CORE_NET_EDGE_FLOOD_LIMITS_H_

#include <cstddef>
#include <cstdint>

#include "core/net/edge/token_bucket.h"

namespace varnic::net {

// What one client may send a server, besides calls and their messages. Each limit is a rule of its
// own, in this folder; a client that breaks one loses its connection.
struct FloodLimits {
  // Streams that end in a reset: by the client before the server has answered, or by the server for
  // a fault of the client's. Lets a client cancel all that it may have open, and that again.
  TokenRate resets = {2'000, 100};
  // SETTINGS, PING, PRIORITY, WINDOW_UPDATE and whatever else carries no call...
  TokenRate control_frames = {1'000, 100};
  // ...beyond so many for each stream that the client opens, and for each DATA frame that it gets:
  // these it needs to read, and to measure the connection. No more than 20,000 of them are owed it.
  uint32_t control_frames_per_exchange = 10;
  // Entries of one SETTINGS frame.
  uint32_t settings_entries = 32;
  // Frames of a call that bring nothing, and do not end it.
  TokenRate empty_frames = {100, 10};
  // CONTINUATION frames of one header block.
  uint32_t continuations = 8;
  // Frames that wait for a client that reads nothing: acknowledgements, resets and answers, besides
  // one answer for each stream that it may have open.
  std::size_t unread_answers = 10'000;
};

}  // namespace varnic::net

#endif  // CORE_NET_EDGE_FLOOD_LIMITS_H_
