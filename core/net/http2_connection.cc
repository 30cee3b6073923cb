#include "core/net/http2_connection.h"

#include <algorithm>
#include <utility>

#include "core/net/loop_clock.h"

namespace varnic::net {
namespace {

// How much one write offers to the peer.
constexpr std::size_t kWriteBytes = 64 << 10;

// How long a peer may take to close a connection on which everything has been said.
constexpr absl::Duration kLinger = absl::Seconds(1);

// What may come from it meanwhile, and is not looked at: a peer that floods goes on for a while.
constexpr std::size_t kMaxIgnoredBytes = 4 << 20;

}  // namespace

Http2Connection::Http2Connection(EventLoop& loop, std::unique_ptr<ByteStream> stream,
                                 Http2Session::Role role, const Http2Options& options,
                                 Visitor& visitor, const ConnectionLimits& limits)
    : loop_(loop),
      visitor_(visitor),
      stream_(std::move(stream)),
      session_(role, options, *this),
      flush_(loop, [this] { Flush(); }),
      guard_(limits, LoopClock::now()),
      look_timer_(loop) {
  stream_->Start(*this);
  Http2Connection::OnOutputPending();  // The session's greeting.
  Look();
}

Http2Connection::~Http2Connection() {
  session_.CloseAllStreams();
}

void Http2Connection::OnBytes(std::string_view bytes) {
  if (linger_timer_ != nullptr) return Ignore(bytes);
  bytes_received_ += bytes.size();
  flush_follows_ = true;
  fault_ = session_.ProcessBytes(bytes);
  Flush();
}

void Http2Connection::OnWritable() {
  Flush();
}

void Http2Connection::OnClosed(const absl::Status& status) {
  if (linger_timer_ != nullptr) return End(Failure());
  stream_failure_ = status;
  End(status.ok() ? absl::UnavailableError("the peer closed the connection") : status);
}

std::unique_ptr<Http2Session::Handler> Http2Connection::OnNewStream(StreamId stream_id) {
  return visitor_.OnNewStream(stream_id);
}

void Http2Connection::OnGoaway() {
  visitor_.OnGoaway();
}

void Http2Connection::OnPing() {
  const std::uint64_t frames_sent = session_.activity().stream_frames_sent;
  if (!guard_.AdmitPing(LoopClock::now(), frames_sent)) session_.EndFor(EdgeRule::kPings);
}

// A peer that does not read is offered nothing in between.
void Http2Connection::OnStep() {
  if (unsent_.empty()) WriteOutput();
}

void Http2Connection::OnOutputPending() {
  if (!std::exchange(flush_follows_, true)) flush_.Post();
}

void Http2Connection::Flush() {
  if (stream_ == nullptr) return;
  flush_follows_ = true;
  const bool all_written = WriteOutput() && stream_->unwritten() == 0;
  if (!all_written) session_.OnOutputStuck();
  flush_follows_ = false;
  if (IsBroken() || (session_.IsFinished() && all_written)) {
    Linger(all_written);
  } else if (guard_.WantsLookAtOutput() && (!all_written || session_.activity().bytes_queued > 0)) {
    Look();
  }
}

bool Http2Connection::IsBroken() const {
  return session_.broken_rule().has_value() || !fault_.ok() ||
         (session_.IsFinished() && !session_.failure().ok());
}

absl::Status Http2Connection::Failure() const {
  return fault_.ok() ? session_.failure() : fault_;
}

bool Http2Connection::WriteOutput() {
  if (!unsent_.empty() && !Write(std::exchange(unsent_, std::string()))) return false;
  static thread_local std::string output;  // Only what the peer does not take costs memory.
  while (true) {
    output.clear();
    session_.TakeOutput(kWriteBytes, output);
    if (output.empty()) return true;
    if (!Write(output)) return false;
  }
}

bool Http2Connection::Write(std::string_view bytes) {
  const std::size_t written = stream_->Write(bytes);
  bytes_written_ += written;
  unsent_ = bytes.substr(written);
  return unsent_.empty();
}

void Http2Connection::Linger(bool all_written) {
  if (linger_timer_ == nullptr) {
    linger_timer_ = std::make_unique<Timer>(loop_);
    linger_timer_->Start(kLinger, [this] { End(Failure()); });
    look_timer_.Cancel();
  }
  if (!all_written || std::exchange(said_all_, true)) return;
  session_.CloseAllStreams();
  stream_->ShutdownWrite();
}

void Http2Connection::Ignore(std::string_view bytes) {
  ignored_bytes_ += bytes.size();
  if (ignored_bytes_ > kMaxIgnoredBytes) End(Failure());
}

void Http2Connection::Look() {
  const ConnectionGuard::Verdict verdict = guard_.Look(LoopClock::now(), FindActivity());
  for (const StreamId stream_id : verdict.stalled_streams) session_.ResetStalled(stream_id);
  if (verdict.ping) session_.SendPing();
  if (verdict.next_look < absl::InfiniteDuration()) {
    look_timer_.Start(verdict.next_look, [this] { Look(); });
  }
  if (verdict.end.has_value()) EndFor(*verdict.end);
}

void Http2Connection::EndFor(EdgeRule rule) {
  if (rule == EdgeRule::kKeepalive) {
    stream_failure_ = absl::UnavailableError("the peer does not answer a ping");
  }
  // At once: the session announces no output while there is some that the peer does not take, and a
  // call that came before the GOAWAY is sent would be both served and refused.
  flush_follows_ = true;
  session_.EndFor(rule);
  Flush();
}

ConnectionGuard::Activity Http2Connection::FindActivity() const {
  ConnectionGuard::Activity activity;
  activity.greeted = session_.activity().greeted;
  activity.bytes_received = bytes_received_;
  activity.streams_opened = session_.activity().streams_opened;
  activity.output = session_.FindWaitingOutput();
  const std::size_t held = stream_->unwritten();
  activity.output.written = bytes_written_ - std::min<std::uint64_t>(held, bytes_written_);
  activity.output.unwritten = unsent_.size() + held;
  return activity;
}

void Http2Connection::End(const absl::Status& status) {
  if (stream_ == nullptr) return;
  stream_ = nullptr;
  look_timer_.Cancel();
  session_.CloseAllStreams();
  visitor_.OnConnectionClosed(status);
}

}  // namespace varnic::net
