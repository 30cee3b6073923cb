#ifndef CORE_NET_STREAM_HISTORY_H_
#define CORE_NET_STREAM_HISTORY_H_

#include <bitset>
#include <cstddef>
#include <cstdint>

namespace varnic::net {

// Which streams a client has opened, and which of them it has ended (RFC 9113, sections 5.1 and
// 5.1.1). Says nothing of what the server has ended: the client may not know that yet. Remembers
// the latest thousand streams, in a few hundred bytes; of older ones it believes the best.
class StreamHistory {
 public:
  enum class State {
    kNew,      // Has a larger number than all before it.
    kMayGoOn,  // The client has not ended it.
    kEnded,    // The client has sent its last frame.
    kLeftOut,  // The client has opened a later one instead, and with that closed it.
  };

  // Of a stream with a number that is a client's.
  State Find(int32_t stream_id) const;

  // The client begins a stream, which is new.
  void OnOpened(int32_t stream_id);
  // The client has ended it, by END_STREAM or a reset. Nothing happens if it is no stream of its.
  void OnEnded(int32_t stream_id);

 private:
  static constexpr int32_t kRemembered = 1024;

  static std::size_t Slot(int32_t stream_id) {
    return static_cast<std::size_t>(stream_id / 2 % kRemembered);
  }
  bool IsForgotten(int32_t stream_id) const { return stream_id <= last_ - 2 * kRemembered; }

  int32_t last_ = -1;
  std::bitset<kRemembered> opened_;
  std::bitset<kRemembered> ended_;
};

}  // namespace varnic::net

#endif  // CORE_NET_STREAM_HISTORY_H_
