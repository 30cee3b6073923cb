#include "core/client/resuming_stream.h"

#include <algorithm>
#include <utility>

#include "absl/strings/str_cat.h"
#include "core/common/rpc/fatal.h"

namespace varnic {
namespace {

// See docs/wire.md.
constexpr net::HeaderField kEnvelopeFraming = {"varnic-framing", "envelope"};

}  // namespace

ResumingStream::ResumingStream(Client& client, const google::protobuf::MethodDescriptor& method,
                               Visitor& visitor)
    : client_(client),
      keeper_(client.connections()),
      path_(absl::StrCat("/", method.service()->full_name(), "/", method.name())),
      visitor_(visitor),
      pacer_(client.options().backoff),
      retry_timer_(client.loop()) {
  VARNIC_CHECK(client.loop().IsLoopThread());
  keeper_.OnStreamBegins();
  // Later, so that what is subscribed until then goes out at once.
  client.loop().Post(lifetime_.Guard([this] { Open(ConnectionKeeper::Patience::kNow); }));
}

ResumingStream::~ResumingStream() {
  VARNIC_CHECK(client_.loop().IsLoopThread());
  keeper_.OnStreamEnds();
  keeper_.Leave(ticket_);
  CancelCall();
}

void ResumingStream::Send(std::string framed) {
  if (call_ == nullptr) return;
  const std::size_t queued = call_->queued_bytes();
  if (queued == 0 || queued + framed.size() <= client_.options().max_queued_stream_bytes) {
    return call_->Send(std::move(framed), /*half_close=*/false);
  }
  CancelCall();
  client_.loop().Post(lifetime_.Guard([this, queued] {
    visitor_.OnEnd(absl::ResourceExhaustedError(
        absl::StrCat("the server does not read what ", path_, " sends: ", queued, " bytes wait")));
  }));
}

void ResumingStream::Open(ConnectionKeeper::Patience patience) {
  net::GrpcClientConnection* connection = keeper_.current();
  if (connection != nullptr && OpenOn(*connection)) return;
  ticket_ = keeper_.Wait(*this, patience);
}

bool ResumingStream::OpenOn(net::GrpcClientConnection& connection) {
  call_ = connection.StartCall(path_, absl::InfiniteDuration(), *this, {kEnvelopeFraming});
  if (call_ == nullptr) return false;
  answered_ = false;
  up_ = false;
  pacer_.OnAttempt();
  std::string first = visitor_.OnOpen();
  if (!first.empty()) call_->Send(std::move(first), /*half_close=*/false);
  return true;
}

void ResumingStream::OnConnected(net::GrpcClientConnection& connection) {
  ticket_ = 0;
  const bool opened = OpenOn(connection);
  VARNIC_CHECK(opened);
}

void ResumingStream::OnConnectFailed(const absl::Status& why,
                                     std::optional<absl::Duration> retry_in) {
  if (!retry_in.has_value()) return visitor_.OnEnd(why);
  visitor_.OnDown(why, *retry_in);
}

void ResumingStream::OnHeaders() {
  answered_ = true;
  MaybeUp();
}

void ResumingStream::OnSendQueueEmpty() {
  if (up_ || !answered_) return;
  client_.loop().Post(lifetime_.Guard([this] { MaybeUp(); }));
}

// What waits for the server's windows could be overtaken by another call's request.
void ResumingStream::MaybeUp() {
  if (up_ || !answered_ || call_ == nullptr || call_->queued_bytes() > 0) return;
  up_ = true;
  pacer_.OnSuccess();
  visitor_.OnUp();
}

void ResumingStream::OnMessage(std::string_view message) {
  const absl::Status status = visitor_.OnMessage(message);
  if (status.ok()) return;  // The stream may be gone.
  CancelCall();
  visitor_.OnEnd(status);
}

void ResumingStream::OnDone(const absl::Status& status) {
  call_ = nullptr;
  if (!visitor_.IsLoss(status)) return visitor_.OnEnd(status);
  const absl::Duration retry_in = std::max(pacer_.UntilNext(), keeper_.UntilNextAttempt());
  retry_timer_.Start(retry_in, [this] { Open(ConnectionKeeper::Patience::kWhenDue); });
  visitor_.OnDown(status, retry_in);
}

void ResumingStream::CancelCall() {
  if (call_ != nullptr) std::exchange(call_, nullptr)->Cancel();
}

}  // namespace varnic
