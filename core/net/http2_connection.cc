#include "core/net/http2_connection.h"

#include <utility>

namespace varnic::net {
namespace {

// How much one write offers to the peer.
constexpr std::size_t kWriteBytes = 64 << 10;

// How long a peer may take to close a connection on which everything has been said.
constexpr absl::Duration kLinger = absl::Seconds(1);

}  // namespace

Http2Connection::Http2Connection(EventLoop& loop, std::unique_ptr<ByteStream> stream,
                                 Http2Session::Role role, const Http2Options& options,
                                 Visitor& visitor)
    : loop_(loop), visitor_(visitor), stream_(std::move(stream)), session_(role, options, *this) {
  stream_->Start(*this);
  Http2Connection::OnOutputPending();  // The session's greeting.
}

Http2Connection::~Http2Connection() {
  session_.CloseAllStreams();
}

void Http2Connection::OnBytes(std::string_view bytes) {
  if (linger_timer_ != nullptr) return;  // Nobody listens any more.
  flush_follows_ = true;
  const absl::Status status = session_.ProcessBytes(bytes);
  if (status.ok()) {
    Flush();
  } else {
    WriteOutput();  // As much as goes: it may tell the peer what was wrong.
    End(status);
  }
}

void Http2Connection::OnWritable() {
  Flush();
}

void Http2Connection::OnClosed(const absl::Status& status) {
  if (linger_timer_ != nullptr) return End(absl::OkStatus());
  stream_failure_ = status;
  End(status.ok() ? absl::UnavailableError("the peer closed the connection") : status);
}

std::unique_ptr<Http2Session::Handler> Http2Connection::OnNewStream(StreamId stream_id) {
  return visitor_.OnNewStream(stream_id);
}

void Http2Connection::OnGoaway() {
  visitor_.OnGoaway();
}

void Http2Connection::OnOutputPending() {
  if (std::exchange(flush_follows_, true)) return;
  loop_.Post(lifetime_.Guard([this] { Flush(); }));
}

void Http2Connection::Flush() {
  if (stream_ == nullptr) return;
  flush_follows_ = true;
  const bool all_written = WriteOutput();
  flush_follows_ = false;
  // A peer that broke the protocol hears of it as far as it reads; nobody waits for it.
  if (session_.IsFinished() && !session_.failure().ok()) {
    End(session_.failure());
  } else if (session_.IsFinished() && all_written) {
    Linger();
  } else if (!all_written && session_.IsFlooded()) {
    End(absl::ResourceExhaustedError("the peer does not read what it makes this end say"));
  }
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
  unsent_ = bytes.substr(written);
  return unsent_.empty();
}

void Http2Connection::Linger() {
  if (linger_timer_ != nullptr) return;
  linger_timer_ = std::make_unique<Timer>(loop_);
  linger_timer_->Start(kLinger, [this] { End(absl::OkStatus()); });
  stream_->ShutdownWrite();
}

void Http2Connection::End(const absl::Status& status) {
  if (stream_ == nullptr) return;
  stream_ = nullptr;
  session_.CloseAllStreams();
  visitor_.OnConnectionClosed(status);
}

}  // namespace varnic::net
