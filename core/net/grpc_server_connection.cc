#include "core/net/grpc_server_connection.h"

#include <algorithm>
#include <utility>

#include "absl/container/inlined_vector.h"
#include "absl/strings/str_cat.h"
#include "core/net/grpc_status.h"
#include "core/net/percent_encoding.h"

namespace varnic::net {
namespace {

using Fields = absl::InlinedVector<HeaderField, 5>;

constexpr HeaderField kResponseFields[] = {
    {":status", "200"}, {"content-type", "application/grpc"}, {"grpc-accept-encoding", "identity"}};
// Of them, what a client hears that does not compress: each field of each answer takes time.
constexpr std::size_t kPlainResponseFields = 2;

// What follows the response of a call that went well.
constexpr HeaderField kOkTrailers[] = {{"grpc-status", "0"}};

// Many clients read no more than 8 KiB of header fields, and refuse the whole answer otherwise.
constexpr std::size_t kMaxTrailerText = 6 << 10;
static_assert(Metadata::kMaxBytes < kMaxTrailerText);

// The grpc-message of a text. One that would be longer than `limit` is cut, between two characters.
std::string EncodeText(std::string_view text, std::size_t limit) {
  std::string encoded = PercentEncode(text);
  if (encoded.size() <= limit) return encoded;
  std::size_t end = std::min(text.size() - 1, limit / 3);
  while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
  return PercentEncode(text.substr(0, end));
}

// Views into `metadata`.
void AppendFields(const Metadata& metadata, Fields& fields) {
  for (const Metadata::Entry& entry : metadata.entries()) {
    fields.push_back({entry.key, entry.value});
  }
}

// What one call may have waiting in its HTTP/2 stream. More waits where it can still be replaced.
constexpr std::size_t kSendBytes = 16 << 10;

ConnectionLimits LimitsFor(const Peer& peer, const ConnectionLimits& limits) {
  return peer.kind == Peer::Kind::kUnix ? limits.ForLocalPeer() : limits;
}

}  // namespace

GrpcServerCall::GrpcServerCall(GrpcServerConnection& connection, StreamId stream_id)
    : connection_(connection),
      stream_id_(stream_id),
      observer_(connection.options_.observer),
      began_(session().input_time()),
      reader_(connection.options_.max_message_bytes),
      unfinished_(connection.unfinished_) {}

GrpcServerCall::~GrpcServerCall() = default;

Http2Session& GrpcServerCall::session() const {
  return connection_.http2_.session();
}

const std::shared_ptr<const Peer>& GrpcServerCall::peer() const {
  return connection_.peer_;
}

std::shared_ptr<const Metadata> GrpcServerCall::RequestMetadata(const GrpcRequestHead& head) const {
  return connection_.metadata_.Of(*head.headers);
}

absl::Span<const HeaderField> GrpcServerCall::ResponseFields() const {
  const absl::Span<const HeaderField> all = kResponseFields;
  return names_encoding_ ? all : all.first(kPlainResponseFields);
}

void GrpcServerCall::SendHeaders(const Metadata& metadata) {
  if (finished_ || std::exchange(headers_sent_, true)) return;
  const absl::Span<const HeaderField> own_fields = ResponseFields();
  if (metadata.empty()) {
    session().SendHeaders(stream_id_, own_fields, /*end_stream=*/false,
                          Http2Session::HeaderText::kConstant);
    return;
  }
  Fields fields(own_fields.begin(), own_fields.end());
  AppendFields(metadata, fields);
  session().SendHeaders(stream_id_, fields, /*end_stream=*/false);
}

void GrpcServerCall::Send(std::string framed, std::shared_ptr<const std::string> shared) {
  if (finished_) return;
  SendHeaders();
  if (shared == nullptr) {
    session().SendData(stream_id_, std::move(framed), /*end_stream=*/false);
  } else {
    session().SendSharedData(stream_id_, std::move(framed), std::move(shared));
  }
}

void GrpcServerCall::SendCopy(std::string_view framed) {
  if (finished_) return;
  SendHeaders();
  session().SendCopy(stream_id_, framed);
}

bool GrpcServerCall::HasRoom() const {
  return session().QueuedBytes(stream_id_) < kSendBytes;
}

void GrpcServerCall::Reset(Http2Error error) {
  finished_ = true;
  TakeVisitor();
  ReportEnd(StatusFromRstStream(static_cast<uint32_t>(error)));
  session().Reset(stream_id_, error);
}

void GrpcServerCall::Finish(const absl::Status& status, const Metadata& metadata) {
  if (std::exchange(finished_, true)) return;
  TakeVisitor();
  ReportEnd(status.code());
  if (headers_sent_ && status.ok() && metadata.empty()) {
    return session().SendTrailers(stream_id_, kOkTrailers, Http2Session::HeaderText::kConstant);
  }
  const std::string message =
      EncodeText(std::string_view(status.message().data(), status.message().size()),
                 kMaxTrailerText - std::min(metadata.size_bytes(), kMaxTrailerText));
  Fields fields;
  // Without a message before it, the status stands in the only header block.
  if (!headers_sent_) fields.assign(ResponseFields().begin(), ResponseFields().end());
  fields.push_back({"grpc-status", FormatGrpcStatus(status.code())});
  if (!message.empty()) fields.push_back({"grpc-message", message});
  AppendFields(metadata, fields);
  const auto text = message.empty() && metadata.empty() ? Http2Session::HeaderText::kConstant
                                                        : Http2Session::HeaderText::kCallers;
  if (headers_sent_) {
    session().SendTrailers(stream_id_, fields, text);
  } else {
    session().SendHeaders(stream_id_, fields, /*end_stream=*/true, text);
  }
}

void GrpcServerCall::OnHeaders(const HeaderList& headers) {
  if (std::exchange(request_seen_, true)) return;  // A client has nothing to say in trailers.
  const GrpcRequest& request = connection_.requests_.Of(headers);
  if (const auto* head = std::get_if<GrpcRequestHead>(&request)) {
    Begin(*head);
  } else if (const auto* status = std::get_if<absl::Status>(&request)) {
    Finish(*status);
  } else {
    Reject(std::get<HttpRejection>(request));
  }
}

bool GrpcServerCall::OnHeadersTooLarge(std::size_t limit) {
  request_seen_ = true;
  Cancel(absl::ResourceExhaustedError(
      absl::StrCat("The request has more than ", limit, " bytes of header fields")));
  return true;
}

void GrpcServerCall::Begin(const GrpcRequestHead& head) {
  names_encoding_ = head.encoding != "identity";
  if (head.timeout != absl::InfiniteDuration()) {
    deadline_ = absl::Now() + head.timeout;
    timer_ = std::make_unique<Timer>(connection_.loop_);
    timer_->Start(head.timeout,
                  [this] { Cancel(absl::DeadlineExceededError("Deadline exceeded")); });
  }
  connection_.visitor_.OnCall(*this, head);
}

void GrpcServerCall::Reject(const HttpRejection& rejection) {
  finished_ = true;
  ReportEnd(absl::StatusCode::kUnknown);  // What a gRPC client makes of it.
  session().SendHeaders(stream_id_, {HeaderField{":status", rejection.http_status}},
                        /*end_stream=*/true);
}

void GrpcServerCall::OnData(std::string_view chunk) {
  if (visitor_ == nullptr) return;
  absl::Status status = reader_.Read(chunk, [this](std::string_view message, bool compressed) {
    return OnMessage(message, compressed);
  });
  if (status.ok()) status = unfinished_.Set(reader_.unfinished_bytes());
  if (!status.ok()) Cancel(status);
}

absl::Status GrpcServerCall::OnMessage(std::string_view message, bool compressed) {
  if (compressed && !names_encoding_) {
    return absl::InternalError(
        "A message is marked as compressed, but grpc-encoding names nothing");
  }
  if (compressed) {
    // Some clients look for grpc-accept-encoding in headers alone, and then compress no more.
    SendHeaders();
    return absl::UnimplementedError(
        "Compressed messages are not supported; grpc-accept-encoding names what is");
  }
  visitor_->OnMessage(message);
  // What stands behind the message is not even to be gathered for a call that is over.
  return visitor_ == nullptr ? absl::CancelledError("the call has ended") : absl::OkStatus();
}

void GrpcServerCall::OnRemoteEnd() {
  if (visitor_ == nullptr) return;
  const absl::Status status = reader_.Finish();
  if (status.ok()) {
    visitor_->OnHalfClose();
  } else {
    Cancel(status);
  }
}

void GrpcServerCall::OnSendQueueEmpty() {
  if (visitor_ != nullptr) visitor_->OnRoom();
}

void GrpcServerCall::OnClosed(Http2Error /*error*/) {
  finished_ = true;
  if (request_seen_) {
    ReportEnd(stalled_ ? absl::StatusCode::kResourceExhausted : absl::StatusCode::kCancelled);
  }
  Visitor* visitor = TakeVisitor();
  if (visitor == nullptr) return;
  if (stalled_) {
    visitor->OnStalled();
  } else {
    visitor->OnCancelled();
  }
}

void GrpcServerCall::Cancel(const absl::Status& status) {
  Visitor* visitor = TakeVisitor();
  Finish(status);
  if (visitor != nullptr) visitor->OnCancelled();
}

void GrpcServerCall::ReportEnd(absl::StatusCode code) {
  CallObserver* observer = std::exchange(observer_, nullptr);
  if (observer == nullptr) return;
  observer->OnCallEnded(code, LoopClock::Between(began_, LoopClock::now()));
}

GrpcServerCall::Visitor* GrpcServerCall::TakeVisitor() {
  if (timer_ != nullptr) timer_->Cancel();
  // The stream may stay for long, until the client has read its end.
  reader_.Discard();
  unfinished_.Clear();
  return std::exchange(visitor_, nullptr);
}

GrpcServerConnection::GrpcServerConnection(EventLoop& loop, std::unique_ptr<ByteStream> stream,
                                           const GrpcServerOptions& options, Visitor& visitor)
    : loop_(loop),
      options_(options),
      visitor_(visitor),
      peer_(std::make_shared<const Peer>(stream->peer())),
      unfinished_(std::max(options.max_unfinished_bytes, options.max_message_bytes)),
      http2_(loop, std::move(stream), Http2Session::Role::kServer, options.http2, *this,
             LimitsFor(*peer_, options.limits)) {}

std::unique_ptr<Http2Session::Handler> GrpcServerConnection::OnNewStream(StreamId stream_id) {
  return std::make_unique<GrpcServerCall>(*this, stream_id);
}

void GrpcServerConnection::OnConnectionClosed(const absl::Status& status) {
  visitor_.OnConnectionClosed(*this, status);
}

}  // namespace varnic::net
