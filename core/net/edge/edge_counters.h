#ifndef CORE_NET_EDGE_EDGE_COUNTERS_H_
#define CORE_NET_EDGE_EDGE_COUNTERS_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace varnic::net {

// The rules of the edge that end a connection.
enum class EdgeRule {
  kConnections,    // More connections than the server holds.
  kHandshake,      // A peer that does not begin to speak HTTP/2 in time.
  kIdle,           // No call for long.
  kStalled,        // A peer that reads nothing of what waits for it.
  kKeepalive,      // A peer that does not answer the server's ping.
  kPings,          // Pings that come too often.
  kResets,         // Streams that end in resets, whoever sends them, too often.
  kControlFrames,  // SETTINGS, PING, PRIORITY and other frames that carry no call, too often.
  kEmptyFrames,    // Frames without content, too often.
  kContinuations,  // A header block in too many pieces.
  kUnreadAnswers,  // Answers to the peer's frames that it leaves unread.
};
constexpr std::size_t kEdgeRules = 11;

// The name that a GOAWAY gives as its reason, and metrics as a label: "too_many_resets".
std::string_view RuleName(EdgeRule rule);

// What the edge of a server has seen over its life. One thread only.
struct EdgeCounters {
  std::uint64_t resets_received = 0;
  std::uint64_t resets_sent = 0;
  std::array<std::uint64_t, kEdgeRules> ended_by = {};  // Connections, by the rule that ended them.

  void CountEnd(EdgeRule rule) { ++ended_by[static_cast<std::size_t>(rule)]; }
};

}  // namespace varnic::net

#endif  // CORE_NET_EDGE_EDGE_COUNTERS_H_
