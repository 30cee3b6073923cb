#include "core/net/stream_history.h"

#include <algorithm>

namespace varnic::net {

StreamHistory::State StreamHistory::Find(int32_t stream_id) const {
  if (stream_id > last_) return State::kNew;
  if (IsForgotten(stream_id)) return State::kMayGoOn;
  if (!opened_[Slot(stream_id)]) return State::kLeftOut;
  return ended_[Slot(stream_id)] ? State::kEnded : State::kMayGoOn;
}

void StreamHistory::OnOpened(int32_t stream_id) {
  // Of a large gap, the end is what is remembered.
  const int32_t first_left_out = std::max(last_ + 2, stream_id - 2 * (kRemembered - 1));
  for (int32_t left_out = first_left_out; left_out < stream_id; left_out += 2) {
    opened_.reset(Slot(left_out));
  }
  opened_.set(Slot(stream_id));
  ended_.reset(Slot(stream_id));
  last_ = stream_id;
}

void StreamHistory::OnEnded(int32_t stream_id) {
  const bool is_known = stream_id % 2 == 1 && stream_id <= last_ && !IsForgotten(stream_id);
  if (is_known) ended_.set(Slot(stream_id));
}

}  // namespace varnic::net
