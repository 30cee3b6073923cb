// The rules of the edge that hold for one connection over time, against any activity and any looks
// besides those that the rules ask for: none of them ends a connection that keeps it, each ends one
// that does not, at most a quarter later than its limit says, and none wants to look all the time.

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "absl/time/time.h"
#include "core/common/rpc/fatal.h"
#include "core/net/edge/connection_cap.h"
#include "core/net/edge/connection_guard.h"
#include "core/net/edge/connection_limits.h"
#include "core/net/edge/edge_counters.h"
#include "core/net/edge/ping_policy.h"
#include "core/net/loop_clock.h"
#include "fuzz/fuzz_input.h"

namespace varnic::net {
namespace {

using fuzz::FuzzInput;
using Time = LoopClock::time_point;

constexpr int kMaxSteps = 300;
constexpr int kMaxLooks = 5000;
constexpr std::size_t kMaxStreams = 6;
constexpr std::uint64_t kProgress = 1 << 10;

// Off, or up to a minute.
absl::Duration TakeLimit(FuzzInput& input) {
  const uint8_t length = input.TakeByte();
  if (length == 0xFF) return absl::InfiniteDuration();
  return length * absl::Milliseconds(250);
}

// Up to a quarter of a minute, and more often short.
std::chrono::nanoseconds TakeDelay(FuzzInput& input) {
  const int length = input.TakeByte();
  return std::chrono::microseconds(length * length * 249) + std::chrono::nanoseconds(length % 3);
}

bool IsOver(absl::Duration limit, Time since, Time now) {
  return LoopClock::Between(since, now) >= limit;
}

bool IsOverdue(absl::Duration limit, Time since, Time now) {
  // A nanosecond for each look, since timers know no less.
  return LoopClock::Between(since, now) > limit * 5 / 4 + absl::Nanoseconds(20);
}

// Bytes that wait for the peer, and when they moved.
class Flow {
 public:
  void Add(std::size_t bytes, Time now) {
    if (waiting_ == 0 && bytes > 0) waiting_since_ = still_since_ = now;
    if (waiting_ < kProgress) full_since_ = now;
    waiting_ += bytes;
  }
  void Move(std::size_t bytes, Time now) {
    waiting_ -= bytes;
    moved_ += bytes;
    if (bytes == 0) return;
    moves_.push_back({now, bytes});
    still_since_ = now;
  }
  // What will never move.
  void Drop(std::size_t bytes) { waiting_ -= bytes; }
  void SetBlocked(bool blocked, Time now) {
    if (blocked != std::exchange(blocked_, blocked)) still_since_ = full_since_ = now;
  }
  void OnLook(Time now) {
    if (!blocked_ || waiting_ == 0) free_at_ = now;
  }

  // Not if all that waited, or a kilobyte of it, has moved in time.
  bool MayBeStalled(absl::Duration timeout, Time now) const {
    return MovesLittle(timeout, now) && IsOver(timeout, waiting_since_, now);
  }
  bool MovesLittle(absl::Duration timeout, Time now) const {
    std::uint64_t moved = 0;
    for (auto move = moves_.rbegin(); move != moves_.rend(); ++move) {
      if (IsOver(timeout, move->first, now)) break;
      moved += move->second;
    }
    return blocked_ && waiting_ > 0 && moved < kProgress && IsOver(timeout, free_at_, now);
  }
  // Single bytes may begin a second period, but no third.
  bool IsStalledForLong(absl::Duration timeout, Time now) const {
    if (!blocked_ || waiting_ == 0) return false;
    return IsOverdue(timeout, still_since_, now) ||
           (waiting_ >= kProgress && IsOverdue(2 * timeout, full_since_, now) &&
            MovesLittle(timeout * 5 / 2, now));
  }

  std::size_t waiting() const { return waiting_; }
  std::uint64_t moved() const { return moved_; }
  bool blocked() const { return blocked_; }
  Time still_since() const { return still_since_; }

 private:
  std::size_t waiting_ = 0;
  std::uint64_t moved_ = 0;
  bool blocked_ = false;
  Time waiting_since_;  // Without having been empty.
  Time full_since_;     // A kilobyte has waited, and could not move freely, since.
  Time free_at_;        // The last look at which nothing was held up.
  Time still_since_;    // Nothing has moved, or could, since.
  std::vector<std::pair<Time, std::size_t>> moves_;
};

// What pings a peer may send while it is sent nothing: over any stretch of time three, and one more
// for each three quarters of the interval.
class PingModel {
 public:
  explicit PingModel(absl::Duration interval) : cost_(interval * 3 / 4) {}

  // After something was sent to the peer.
  void Restart() { admitted_.clear(); }

  void Check(bool admitted, Time now) {
    bool too_many = false;
    int pings = 1;
    for (auto ping = admitted_.rbegin(); ping != admitted_.rend() && !too_many; ++ping) {
      too_many = (++pings - 3) * cost_ > LoopClock::Between(*ping, now);
    }
    VARNIC_CHECK(admitted != too_many);
    admitted_.push_back(now);
  }

 private:
  absl::Duration cost_;
  std::vector<Time> admitted_;
};

// One connection that does whatever the input says, and looks when the guard wants it to. Keeps
// books of its own.
class WatchedConnection {
 public:
  explicit WatchedConnection(FuzzInput& input)
      : input_(input), limits_(TakeLimits(input)), guard_(limits_, now_) {
    socket_.SetBlocked(true, now_);
    Look();
  }

  void Run() {
    for (int i = 0; i < kMaxSteps && !input_.empty() && !ended_ && looks_ < kMaxLooks; ++i) {
      Step();
      if (guard_.WantsLookAtOutput() && !FindActivity().output.empty()) Look();
    }
  }

 private:
  struct Stream {
    int32_t id;
    Flow output;
  };

  static ConnectionLimits TakeLimits(FuzzInput& input) {
    ConnectionLimits limits;
    limits.handshake_timeout = TakeLimit(input);
    limits.max_idle = TakeLimit(input);
    limits.stall_timeout = TakeLimit(input);
    limits.keepalive_time = TakeLimit(input);
    limits.keepalive_timeout = TakeLimit(input);
    limits.keepalive_without_streams = input.TakeBool();
    limits.min_ping_interval = TakeLimit(input);
    return limits;
  }

  // A letter, `a` to `l`, and what it needs.
  void Step() {
    switch (input_.TakeByte() & 0xF) {
      case 'a' & 0xF:
        greeted_ = true;
        return Receive(1);
      case 'b' & 0xF:
        return Receive(input_.TakeByte());
      case 'c' & 0xF:
        return OpenStream();
      case 'd' & 0xF:
        return CloseStream(TakeStream());
      case 'e' & 0xF:
        return Queue();
      case 'f' & 0xF:
        return SendQueued();
      case 'g' & 0xF:
        return window_.SetBlocked(input_.TakeBool(), now_);
      case 'h' & 0xF:
        return SetStreamBlocked();
      case 'i' & 0xF:
        return socket_.Add(TakeBytes(), now_);
      case 'j' & 0xF:
        return socket_.Move(std::min(TakeBytes(), socket_.waiting()), now_);
      case 'k' & 0xF:
        return Ping();
      case 'l' & 0xF:
        return Look();
      default:
        PassTime(now_ + TakeDelay(input_));
    }
  }

  void PassTime(Time until) {
    while (next_look_.has_value() && *next_look_ <= until && !ended_ && looks_ < kMaxLooks) {
      now_ = *next_look_;
      Look();
    }
    if (ended_ || looks_ == kMaxLooks) return;
    now_ = until;
    CheckNothingIsOverdue();
  }

  void Receive(std::size_t bytes) {
    bytes_received_ += bytes;
    if (bytes == 0) return;
    last_byte_ = now_;
    heard_ = true;
  }

  void OpenStream() {
    if (streams_.size() == kMaxStreams) return;
    // Without it nobody is pinged, perhaps.
    if (streams_.empty()) wanted_since_ = now_;
    last_stream_ = now_;
    ++streams_opened_;
    streams_.push_back({static_cast<int32_t>(streams_opened_) * 2 - 1, {}});
  }

  void CloseStream(std::size_t i) {
    if (i >= streams_.size()) return;
    last_stream_ = now_;
    window_.Drop(streams_[i].output.waiting());
    streams_.erase(streams_.begin() + static_cast<std::ptrdiff_t>(i));
  }

  void Queue() {
    const std::size_t i = TakeStream();
    const std::size_t bytes = TakeBytes();
    if (i >= streams_.size()) return;
    streams_[i].output.Add(bytes, now_);
    window_.Add(bytes, now_);
  }

  void SendQueued() {
    const std::size_t i = TakeStream();
    const std::size_t bytes = TakeBytes();
    if (i >= streams_.size()) return;
    const std::size_t sent = std::min(bytes, streams_[i].output.waiting());
    streams_[i].output.Move(sent, now_);
    window_.Move(sent, now_);
    ++frames_sent_;
    pings_.Restart();
  }

  void SetStreamBlocked() {
    const std::size_t i = TakeStream();
    const bool blocked = input_.TakeBool();
    if (i < streams_.size()) streams_[i].output.SetBlocked(blocked, now_);
  }

  void Ping() {
    Receive(17);
    const bool admitted = guard_.AdmitPing(now_, frames_sent_);
    if (ConnectionLimits::IsOn(limits_.min_ping_interval)) {
      pings_.Check(admitted, now_);
    } else {
      VARNIC_CHECK(admitted);
    }
    ended_ = !admitted;
  }

  void Look() {
    ++looks_;
    socket_.OnLook(now_);
    window_.OnLook(now_);
    for (Stream& stream : streams_) stream.output.OnLook(now_);
    const ConnectionGuard::Verdict verdict = guard_.Look(now_, FindActivity());
    CheckPing(verdict);
    CheckStalledStreams(verdict);
    if (verdict.end.has_value()) CheckEnd(*verdict.end, verdict);
    if (ended_) return;
    CheckNextLook(verdict.next_look);
    for (const int32_t id : verdict.stalled_streams) CloseStream(IndexOf(id));
    CheckNothingIsOverdue();
  }

  void CheckPing(const ConnectionGuard::Verdict& verdict) {
    if (std::exchange(heard_, false) || !IsPingWanted()) pinged_at_.reset();
    if (!verdict.ping) return;
    VARNIC_CHECK(IsPingWanted() && !pinged_at_.has_value());
    VARNIC_CHECK(IsOver(limits_.keepalive_time, last_byte_, now_));
    pinged_at_ = now_;
  }

  void CheckStalledStreams(const ConnectionGuard::Verdict& verdict) const {
    for (const int32_t id : verdict.stalled_streams) {
      VARNIC_CHECK(streams_[IndexOf(id)].output.MayBeStalled(limits_.stall_timeout, now_));
    }
  }

  void CheckEnd(EdgeRule rule, const ConnectionGuard::Verdict& verdict) {
    ended_ = rule != EdgeRule::kIdle;
    switch (rule) {
      case EdgeRule::kHandshake:
        VARNIC_CHECK(!greeted_ && IsOver(limits_.handshake_timeout, Time(), now_));
        break;
      case EdgeRule::kIdle:
        VARNIC_CHECK(!std::exchange(was_idle_, true));
        VARNIC_CHECK(streams_.empty() && IsOver(limits_.max_idle, last_stream_, now_));
        VARNIC_CHECK(socket_.waiting() == 0);
        break;
      case EdgeRule::kStalled:
        VARNIC_CHECK(socket_.MayBeStalled(limits_.stall_timeout, now_) ||
                     window_.MovesLittle(limits_.stall_timeout, now_) ||
                     AreAllStalled(verdict.stalled_streams));
        break;
      case EdgeRule::kKeepalive:
        VARNIC_CHECK(ConnectionLimits::IsOn(limits_.keepalive_timeout) && pinged_at_.has_value());
        VARNIC_CHECK(IsOver(limits_.keepalive_timeout, *pinged_at_, now_));
        break;
      default:
        VARNIC_FATAL("A rule that has nothing to do with time");
    }
  }

  bool AreAllStalled(const std::vector<int32_t>& stalled) const {
    return !streams_.empty() && stalled.size() == streams_.size();
  }

  // Soon enough for every rule, and never at once.
  void CheckNextLook(absl::Duration next_look) {
    VARNIC_CHECK(next_look >= absl::Nanoseconds(1));
    next_look_.reset();
    if (!was_idle_) CheckIsInTime(next_look, limits_.max_idle);
    CheckIsInTime(next_look, limits_.keepalive_time);
    if (ConnectionLimits::IsOn(limits_.keepalive_time) && pinged_at_.has_value()) {
      CheckIsInTime(next_look, limits_.keepalive_timeout);
    }
    if (!FindActivity().output.empty()) CheckIsInTime(next_look, limits_.stall_timeout);
    if (next_look < absl::InfiniteDuration()) {
      VARNIC_CHECK(HasToLook());
      next_look_ = now_ + absl::ToChronoNanoseconds(next_look);
    }
  }

  bool HasToLook() const {
    return (!greeted_ && ConnectionLimits::IsOn(limits_.handshake_timeout)) ||
           (!was_idle_ && ConnectionLimits::IsOn(limits_.max_idle)) ||
           ConnectionLimits::IsOn(limits_.keepalive_time) || !FindActivity().output.empty();
  }

  static void CheckIsInTime(absl::Duration next_look, absl::Duration limit) {
    VARNIC_CHECK(!ConnectionLimits::IsOn(limit) || next_look <= limit / 4);
  }

  void CheckNothingIsOverdue() const {
    if (ConnectionLimits::IsOn(limits_.handshake_timeout)) {
      VARNIC_CHECK(greeted_ || !IsOverdue(limits_.handshake_timeout, Time(), now_));
    }
    if (ConnectionLimits::IsOn(limits_.max_idle)) VARNIC_CHECK(was_idle_ || !IsIdleForLong());
    if (ConnectionLimits::IsOn(limits_.stall_timeout)) {
      VARNIC_CHECK(!socket_.IsStalledForLong(limits_.stall_timeout, now_));
      VARNIC_CHECK(!window_.IsStalledForLong(limits_.stall_timeout, now_));
      for (const Stream& stream : streams_) {
        VARNIC_CHECK(!stream.output.IsStalledForLong(limits_.stall_timeout, now_));
      }
    }
    if (ConnectionLimits::IsOn(limits_.keepalive_time) && IsPingWanted()) CheckLife();
  }

  // What waits for the socket puts it off.
  bool IsIdleForLong() const {
    return streams_.empty() && socket_.waiting() == 0 &&
           IsOverdue(limits_.max_idle, last_stream_, now_) &&
           IsOver(limits_.max_idle / 4, socket_.still_since(), now_);
  }

  void CheckLife() const {
    if (!pinged_at_.has_value() || heard_) {
      const Time since =
          limits_.keepalive_without_streams ? last_byte_ : std::max(last_byte_, wanted_since_);
      VARNIC_CHECK(!IsOverdue(limits_.keepalive_time, since, now_));
    } else if (ConnectionLimits::IsOn(limits_.keepalive_timeout)) {
      VARNIC_CHECK(!IsOverdue(limits_.keepalive_timeout, *pinged_at_, now_));
    }
  }

  bool IsPingWanted() const { return limits_.keepalive_without_streams || !streams_.empty(); }

  ConnectionGuard::Activity FindActivity() const {
    ConnectionGuard::Activity activity;
    activity.greeted = greeted_;
    activity.bytes_received = bytes_received_;
    activity.streams_opened = streams_opened_;
    activity.output.written = socket_.moved();
    activity.output.unwritten = socket_.waiting();
    activity.output.sent = window_.moved();
    activity.output.queued = window_.waiting();
    activity.output.window_closed = window_.blocked();
    activity.output.open_streams = streams_.size();
    for (const auto& [id, output] : streams_) {
      if (output.waiting() == 0) continue;
      activity.output.streams.push_back({id, output.moved(), output.waiting(), output.blocked()});
    }
    return activity;
  }

  // One that is open; or none.
  std::size_t TakeStream() { return input_.TakeBelow(kMaxStreams); }
  std::size_t TakeBytes() { return input_.TakeByte() * std::size_t{16}; }

  std::size_t IndexOf(int32_t id) const {
    for (std::size_t i = 0; i < streams_.size(); ++i) {
      if (streams_[i].id == id) return i;
    }
    VARNIC_FATAL("A stream that is not open");
  }

  FuzzInput& input_;
  const ConnectionLimits limits_;
  Time now_;
  ConnectionGuard guard_;
  std::optional<Time> next_look_;
  int looks_ = 0;
  bool ended_ = false;

  bool greeted_ = false;
  bool was_idle_ = false;
  std::uint64_t bytes_received_ = 0;
  Time last_byte_;
  bool heard_ = false;  // Since the last look.
  std::uint64_t streams_opened_ = 0;
  Time last_stream_;  // When one was open last, but for those that are.
  Time wanted_since_;
  std::optional<Time> pinged_at_;  // By the guard; none once that is answered.
  std::vector<Stream> streams_;
  Flow socket_;
  Flow window_;
  std::uint64_t frames_sent_ = 0;
  PingModel pings_{limits_.min_ping_interval};
};

// A peer that pings at the interval, over a link that delays what it likes by up to two of them.
void CheckHonestPings(FuzzInput& input) {
  const absl::Duration interval = (input.TakeByte() + 1) * absl::Milliseconds(250);
  PingPolicy policy(interval);
  Time now;
  for (int i = 0; i < kMaxSteps; ++i) {
    const absl::Duration arrival = interval * i + interval * input.TakeByte() / 128;
    now = std::max(now, Time(absl::ToChronoNanoseconds(arrival)));
    VARNIC_CHECK(policy.Admit(now, /*frames_sent=*/0));
  }
}

void CheckCap(FuzzInput& input) {
  const auto wanted = static_cast<std::size_t>(input.TakeInt64());
  const auto descriptors = static_cast<std::size_t>(input.TakeInt64());
  const std::size_t cap = ConnectionCap(wanted, descriptors);
  VARNIC_CHECK(cap <= wanted && cap <= descriptors);
  const std::size_t left = descriptors - cap;
  VARNIC_CHECK(left >= std::min<std::size_t>(descriptors / 4, 256));
  VARNIC_CHECK(cap == wanted || left <= 256);
}

}  // namespace
}  // namespace varnic::net

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  varnic::fuzz::FuzzInput input(data, size);
  switch (input.TakeBelow(4)) {
    case 0:
      varnic::net::CheckHonestPings(input);
      break;
    case 1:
      varnic::net::CheckCap(input);
      break;
    default:
      varnic::net::WatchedConnection(input).Run();
  }
  return 0;
}
