// The flood rules of the edge: whatever comes, and when, no more is let through than bursts and
// rates allow over any stretch of time, nothing is refused that they allow, and how the bytes are
// split makes no difference.

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "core/common/rpc/fatal.h"
#include "core/net/client_frames.h"
#include "core/net/edge/flood_limits.h"
#include "core/net/edge/frame_guard.h"
#include "core/net/edge/token_bucket.h"
#include "core/net/testing/raw_http2_peer.h"
#include "fuzz/fuzz_input.h"

namespace varnic::net {
namespace {

using fuzz::FuzzInput;
using Time = TokenBucket::Time;

constexpr int kMaxSteps = 300;
constexpr uint64_t kSecond = 1'000'000'000;

TokenRate TakeRate(FuzzInput& input) {
  const uint32_t burst = input.TakeByte();
  return {burst, input.TakeByte()};
}

// Up to a quarter of a second, or of a minute.
std::chrono::nanoseconds TakeDelay(FuzzInput& input) {
  const uint8_t length = input.TakeByte();
  return std::chrono::milliseconds(input.TakeBool() ? length : 0) +
         std::chrono::microseconds(length * 997);
}

bool IsWithin(uint64_t count, TokenRate rate, std::chrono::nanoseconds time) {
  return count * kSecond <= rate.burst * kSecond + rate.per_second * uint64_t(time.count());
}

void CheckBucket(FuzzInput& input) {
  struct Step {
    Time at;
    uint64_t taken;  // Before it.
  };
  const TokenRate rate = TakeRate(input);
  TokenBucket bucket(rate);
  Time now;
  uint64_t taken = 0;
  std::vector<Step> steps;
  for (int i = 0; i < kMaxSteps && !input.empty(); ++i) {
    now += TakeDelay(input);
    steps.push_back({now, taken});
    const uint32_t tokens = input.TakeByte();
    const bool allowed = bucket.Take(tokens, now);
    if (allowed) taken += tokens;
    VARNIC_CHECK(allowed || taken + tokens > rate.burst);
    for (const Step& step : steps) {
      VARNIC_CHECK(IsWithin(taken - step.taken, rate, now - step.at));
    }
  }
}

void CheckHonestRate(FuzzInput& input) {
  TokenRate rate = TakeRate(input);
  rate = {std::max(rate.burst, 1u), std::max(rate.per_second, 1u)};
  const std::chrono::nanoseconds gap((kSecond + rate.per_second - 1) / rate.per_second);
  TokenBucket bucket(rate);
  Time now;
  for (int i = 0; i < kMaxSteps; ++i) {
    VARNIC_CHECK(bucket.Take(1, now));
    now += gap + std::chrono::nanoseconds(input.TakeByte());
  }
}

// One client's connection, guarded twice: once with all bytes in pieces. Keeps books of its own.
class GuardedClient {
 public:
  explicit GuardedClient(FuzzInput& input)
      : input_(input),
        limits_(TakeLimits(input)),
        piece_size_(input.TakeBelow(20) + 1),
        frames_(limits_, /*max_streams=*/0, /*counters=*/nullptr),
        frames_of_pieces_(limits_, /*max_streams=*/0, /*counters=*/nullptr) {
    VARNIC_CHECK(!Send(testing::kClientPreface).has_value());
  }

  void Run() {
    for (int i = 0; i < kMaxSteps && !input_.empty(); ++i) {
      if (!Step()) return;
    }
  }

  // Whatever comes behind may be no HTTP/2.
  void SendRest() { (void)Send(input_.TakeRest()); }

 private:
  static FloodLimits TakeLimits(FuzzInput& input) {
    FloodLimits limits;
    limits.resets = TakeRate(input);
    limits.control_frames = TakeRate(input);
    limits.empty_frames = TakeRate(input);
    limits.control_frames_per_exchange = static_cast<uint32_t>(input.TakeBelow(20));
    limits.continuations = static_cast<uint32_t>(input.TakeBelow(20));
    limits.unread_answers = input.TakeByte();
    return limits;
  }

  // False once a rule is broken.
  bool Step() {
    switch (input_.TakeBelow(8)) {
      case 0:
        now_ += TakeDelay(input_);
        return true;
      case 1:
        frames_.floods().OnDataSent();
        frames_of_pieces_.floods().OnDataSent();
        ++exchanges_;
        return true;
      case 2:
        return SendReset();
      case 3:
        CheckWaiting();
        return true;
      default:
        return SendFrame();
    }
  }

  void CheckWaiting() {
    const std::size_t frames = input_.TakeByte();
    const bool broken = frames_.floods().OnWaiting(frames).has_value();
    VARNIC_CHECK(broken == (frames > limits_.unread_answers));
  }

  bool SendReset() {
    const bool for_fault = input_.TakeBool();
    const FrameGuard::Verdict verdict = frames_.floods().OnResetSent(for_fault, now_);
    VARNIC_CHECK(verdict == frames_of_pieces_.floods().OnResetSent(for_fault, now_));
    return Count(verdict, EdgeRule::kResets, for_fault ? 1 : 0, resets_, limits_.resets);
  }

  bool SendFrame() {
    FrameHead head;
    head.type = FrameType(input_.TakeBelow(12));
    head.flags = input_.TakeByte();
    head.stream_id = static_cast<int32_t>(input_.TakeBelow(8));
    const std::string_view payload = input_.TakePiece();
    const auto verdict = Send(
        testing::MakeFrame(static_cast<uint8_t>(head.type), head.flags, head.stream_id, payload));
    return Check(verdict, head, payload);
  }

  bool Check(FrameGuard::Verdict verdict, const FrameHead& head, std::string_view payload) {
    switch (head.type) {
      case FrameType::kContinuation:
        VARNIC_CHECK((++continuations_ > limits_.continuations) ==
                     (verdict == EdgeRule::kContinuations));
        if (verdict == EdgeRule::kContinuations) return false;
        return CheckContent(verdict, head, payload);
      case FrameType::kHeaders:
        continuations_ = 0;
        ++exchanges_;
        return CheckContent(verdict, head, payload);
      case FrameType::kData:
        return CheckContent(verdict, head, payload);
      case FrameType::kResetStream:
        if (IsAnswered(head.stream_id)) return CountControl(verdict, 1);
        return Count(verdict, EdgeRule::kResets, 1, resets_, limits_.resets);
      case FrameType::kSettings:
        return CheckSettings(verdict, payload.size() / 6);
      default:
        return CountControl(verdict, 1);
    }
  }

  // A frame that is empty for sure; others may be so for their padding.
  bool CheckContent(FrameGuard::Verdict verdict, const FrameHead& head, std::string_view payload) {
    const bool ends =
        head.Has(head.type == FrameType::kData ? FrameHead::kEndStream : FrameHead::kEndHeaders);
    VARNIC_CHECK(!verdict.has_value() || (verdict == EdgeRule::kEmptyFrames && !ends));
    if (ends || !(payload.empty() || verdict.has_value())) return true;
    if (verdict.has_value()) return false;
    ++empty_frames_;
    VARNIC_CHECK(IsWithin(empty_frames_, limits_.empty_frames, now_ - Time()));
    return true;
  }

  bool CheckSettings(FrameGuard::Verdict verdict, std::size_t entries) {
    if (entries <= limits_.settings_entries) return CountControl(verdict, 1 + entries);
    VARNIC_CHECK(verdict == EdgeRule::kControlFrames);
    return false;
  }

  bool CountControl(FrameGuard::Verdict verdict, uint64_t cost) {
    TokenRate rate = limits_.control_frames;
    rate.burst += static_cast<uint32_t>(exchanges_ * limits_.control_frames_per_exchange);
    const bool refused = verdict.has_value();
    VARNIC_CHECK(!refused || verdict == EdgeRule::kControlFrames);
    VARNIC_CHECK(!refused || control_frames_ + cost > limits_.control_frames.burst);
    if (refused) return false;
    control_frames_ += cost;
    VARNIC_CHECK(IsWithin(control_frames_, rate, now_ - Time()));
    return true;
  }

  bool Count(FrameGuard::Verdict verdict, EdgeRule rule, uint64_t cost, uint64_t& count,
             TokenRate rate) const {
    VARNIC_CHECK(!verdict.has_value() || (verdict == rule && count + cost > rate.burst));
    if (verdict.has_value()) return false;
    count += cost;
    VARNIC_CHECK(IsWithin(count, rate, now_ - Time()));
    return true;
  }

  static bool IsAnswered(int32_t stream_id) { return stream_id % 2 == 0; }

  FrameGuard::Verdict Send(std::string_view bytes) {
    const FrameGuard::Verdict verdict = frames_.Inspect(bytes, now_, IsAnswered).broken_rule;
    FrameGuard::Verdict of_pieces;
    while (!bytes.empty() && !of_pieces.has_value()) {
      const std::string_view piece = bytes.substr(0, piece_size_);
      of_pieces = frames_of_pieces_.Inspect(piece, now_, IsAnswered).broken_rule;
      bytes.remove_prefix(std::min(piece_size_, bytes.size()));
    }
    VARNIC_CHECK(verdict == of_pieces);
    return verdict;
  }

  FuzzInput& input_;
  const FloodLimits limits_;
  const std::size_t piece_size_;
  ClientFrames frames_;
  ClientFrames frames_of_pieces_;
  Time now_;
  // What was let through.
  uint64_t exchanges_ = 0;
  uint64_t resets_ = 0;
  uint64_t control_frames_ = 0;
  uint64_t empty_frames_ = 0;
  uint64_t continuations_ = 0;  // Of the last header block.
};

}  // namespace
}  // namespace varnic::net

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  varnic::fuzz::FuzzInput input(data, size);
  switch (input.TakeBelow(4)) {
    case 0:
      varnic::net::CheckBucket(input);
      break;
    case 1:
      varnic::net::CheckHonestRate(input);
      break;
    case 2:
      varnic::net::GuardedClient(input).Run();
      break;
    default:
      varnic::net::GuardedClient(input).SendRest();
  }
  return 0;
}
