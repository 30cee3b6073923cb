#include "core/net/grpc_client_connection.h"

#include <algorithm>
#include <utility>

#include "absl/container/inlined_vector.h"
#include "absl/strings/numbers.h"
#include "absl/strings/str_cat.h"
#include "core/net/grpc_request.h"
#include "core/net/grpc_status.h"
#include "core/net/grpc_timeout.h"

namespace varnic::net {
namespace {

constexpr absl::Duration kLeastKeepaliveTime = absl::Seconds(10);

ConnectionLimits LimitsFor(const GrpcClientOptions& options) {
  ConnectionLimits limits = ConnectionLimits::None();
  limits.keepalive_time = std::max(options.keepalive_time, kLeastKeepaliveTime);
  limits.keepalive_timeout = options.keepalive_timeout;
  limits.keepalive_without_streams = false;
  return limits;
}

}  // namespace

GrpcClientCall::GrpcClientCall(std::size_t max_message_bytes, Visitor& visitor)
    : visitor_(&visitor), reader_(max_message_bytes) {}

void GrpcClientCall::Send(std::string framed, bool half_close) {
  session_->SendData(stream_id_, std::move(framed), half_close);
}

void GrpcClientCall::Cancel() {
  visitor_ = nullptr;
  session_->Reset(stream_id_, Http2Error::kCancel);
}

void GrpcClientCall::OnHeaders(const HeaderList& headers) {
  if (headers.revision() == plain_answers_->headers) return OnPlainHeaders();
  if (headers.revision() == plain_answers_->trailers) return OnPlainTrailers();
  const std::string_view http_status = headers.Find(":status");
  if (http_status.data() == nullptr) return OnTrailers(headers);
  if (http_status.size() == 3 && http_status[0] == '1') return;  // Informational.
  OnTrailers(headers);  // A call that fails at once has its status here.
  if (has_status_) return;
  if (http_status != "200" || !IsGrpcContentType(headers.Find("content-type"))) {
    int number = 0;
    (void)absl::SimpleAtoi(std::string(http_status), &number);
    return Fail(absl::Status(StatusFromHttp(number),
                             absl::StrCat("the server answered with HTTP status ",
                                          std::string(http_status), " and no gRPC message")));
  }
  plain_answers_->headers = headers.revision();
  OnPlainHeaders();
}

void GrpcClientCall::OnPlainHeaders() {
  if (!std::exchange(has_headers_, true) && visitor_ != nullptr) visitor_->OnHeaders();
}

void GrpcClientCall::OnPlainTrailers() {
  status_ = absl::OkStatus();
  has_status_ = true;
}

void GrpcClientCall::OnTrailers(const HeaderList& headers) {
  const std::string_view grpc_status = headers.Find("grpc-status");
  if (grpc_status.data() == nullptr) return;
  status_ = StatusFromTrailers(grpc_status, headers.Find("grpc-message"));
  has_status_ = true;
  if (status_.ok() && headers.size() == 1) plain_answers_->trailers = headers.revision();
}

void GrpcClientCall::OnData(std::string_view chunk) {
  if (visitor_ == nullptr) return;
  const absl::Status status =
      reader_.Read(chunk, [this](std::string_view message, bool compressed) {
        if (compressed) return absl::InternalError("the server sent a compressed message");
        if (visitor_ != nullptr) visitor_->OnMessage(message);
        return absl::OkStatus();
      });
  if (!status.ok()) Fail(status);
}

void GrpcClientCall::OnSendQueueEmpty() {
  if (visitor_ != nullptr) visitor_->OnSendQueueEmpty();
}

void GrpcClientCall::OnRemoteEnd() {
  if (!has_status_) {
    // What gRPC's "HTTP to gRPC Status Code Mapping" says of HTTP status 200.
    Done(absl::UnknownError("the server ended the call without a status"));
  } else if (status_.ok() && reader_.mid_message()) {
    Done(reader_.Finish());
  } else {
    Done(status_);
  }
}

void GrpcClientCall::OnClosed(Http2Error error) {
  if (visitor_ == nullptr) return;
  if (error == Http2Error::kConnectionLost) {
    const absl::Status& failure = connection_->stream_failure();
    return Done(
        absl::UnavailableError(absl::StrCat("the connection was lost before the answer came",
                                            failure.ok() ? "" : ": ", failure.message())));
  }
  // A server that ends the connection for an error, such as one client too many, wants no more.
  const bool may_be_sent_again = error == Http2Error::kRefusedStream && !has_headers_ &&
                                 !has_status_ && session_->failure().ok();
  if (may_be_sent_again && visitor_->OnUnprocessed()) {
    visitor_ = nullptr;
    return;
  }
  const auto number = static_cast<uint32_t>(error);
  Done(absl::Status(StatusFromRstStream(number),
                    absl::StrCat("the call was reset with HTTP/2 error code ", number)));
}

void GrpcClientCall::Fail(const absl::Status& status) {
  session_->Reset(stream_id_, Http2Error::kCancel);
  Done(status);
}

void GrpcClientCall::Done(const absl::Status& status) {
  if (visitor_ != nullptr) std::exchange(visitor_, nullptr)->OnDone(status);
}

GrpcClientConnection::GrpcClientConnection(EventLoop& loop, std::unique_ptr<ByteStream> stream,
                                           std::string authority, const GrpcClientOptions& options,
                                           Visitor& visitor)
    : authority_(std::move(authority)),
      scheme_(stream->peer().kind == Peer::Kind::kTls ? "https" : "http"),
      options_(options),
      visitor_(visitor),
      http2_(loop, std::move(stream), Http2Session::Role::kClient, options.http2, *this,
             LimitsFor(options)) {}

GrpcClientCall* GrpcClientConnection::StartCall(std::string_view path, absl::Duration timeout,
                                                GrpcClientCall::Visitor& visitor,
                                                absl::Span<const HeaderField> metadata) {
  absl::InlinedVector<HeaderField, 8> headers = {
      {":method", "POST"},        {":scheme", scheme_}, {":path", path},
      {":authority", authority_}, {"te", "trailers"},   {"content-type", "application/grpc"},
  };
  std::string timeout_text;
  if (timeout != absl::InfiniteDuration()) {
    timeout_text = FormatGrpcTimeout(timeout);
    headers.push_back({"grpc-timeout", timeout_text});
  }
  headers.insert(headers.end(), metadata.begin(), metadata.end());
  auto call = std::make_unique<GrpcClientCall>(options_.max_message_bytes, visitor);
  GrpcClientCall* started = call.get();
  const StreamId stream_id = http2_.session().OpenStream(headers, std::move(call));
  if (stream_id < 0) return nullptr;
  started->session_ = &http2_.session();
  started->plain_answers_ = &plain_answers_;
  started->connection_ = &http2_;
  started->stream_id_ = stream_id;
  return started;
}

}  // namespace varnic::net
