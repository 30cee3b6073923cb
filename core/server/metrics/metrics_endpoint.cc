#include "core/server/metrics/metrics_endpoint.h"

#include <optional>
#include <string_view>
#include <utility>

#include "absl/strings/str_cat.h"
#include "base/logging.h"
#include "core/net/address.h"
#include "core/server/metrics/http_request_reader.h"

namespace varnic {
namespace {

constexpr char kPagePath[] = "/metrics";
constexpr char kPlainText[] = "text/plain; charset=utf-8";
constexpr char kMetricsText[] = "text/plain; version=0.0.4; charset=utf-8";

struct HttpAnswer {
  http_status status;
  std::string body;
  const char* content_type = kPlainText;
};

HttpAnswer Failure(http_status status) {
  return {status, absl::StrCat(http_status_str(status), "\n")};
}

std::string FormatAnswer(const HttpAnswer& answer, bool with_body = true) {
  return absl::StrCat("HTTP/1.1 ", static_cast<int>(answer.status), " ",
                      http_status_str(answer.status), "\r\nContent-Type: ", answer.content_type,
                      "\r\nContent-Length: ", answer.body.size(),
                      answer.status == HTTP_STATUS_METHOD_NOT_ALLOWED ? "\r\nAllow: GET, HEAD" : "",
                      "\r\nConnection: close\r\n\r\n", with_body ? answer.body : "");
}

// A web page whose name its owner lets lead to this machine still sends that name.
bool IsForThisMachine(const std::string& host) {
  if (host.empty()) return true;
  const absl::StatusOr<net::Address> with_port = net::Address::Parse(host);
  const absl::StatusOr<net::Address> without = net::Address::Parse(absl::StrCat(host, ":80"));
  return (with_port.ok() && with_port->IsLoopback()) || (without.ok() && without->IsLoopback());
}

HttpAnswer AnswerToHead(const HttpRequestReader& request, const net::Peer& peer,
                        const MetricsEndpoint::Page& page) {
  if (peer.kind != net::Peer::Kind::kUnix && !IsForThisMachine(request.host())) {
    return Failure(HTTP_STATUS_MISDIRECTED_REQUEST);
  }
  if (request.method() != "GET" && request.method() != "HEAD") {
    return Failure(HTTP_STATUS_METHOD_NOT_ALLOWED);
  }
  if (request.path() != kPagePath) return Failure(HTTP_STATUS_NOT_FOUND);
  return {HTTP_STATUS_OK, page(), kMetricsText};
}

// Nothing while the request is incomplete.
std::string AnswerTo(const HttpRequestReader& request, HttpRequestReader::State state,
                     const net::Peer& peer, const MetricsEndpoint::Page& page) {
  switch (state) {
    case HttpRequestReader::State::kIncomplete:
      break;
    case HttpRequestReader::State::kComplete:
      return FormatAnswer(AnswerToHead(request, peer, page),
                          /*with_body=*/request.method() != "HEAD");
    case HttpRequestReader::State::kMalformed:
      return FormatAnswer(Failure(HTTP_STATUS_BAD_REQUEST));
    case HttpRequestReader::State::kTooLarge:
      return FormatAnswer(Failure(HTTP_STATUS_REQUEST_HEADER_FIELDS_TOO_LARGE));
  }
  return "";
}

}  // namespace

// Reads a request, answers, and waits until the client has closed: a connection that is closed with
// bytes on their way to it is reset, and the client may never see the end of the answer.
class MetricsEndpoint::Connection : private net::ByteStream::Visitor {
 public:
  Connection(MetricsEndpoint& endpoint, std::unique_ptr<net::ByteStream> stream)
      : endpoint_(endpoint), timer_(endpoint.loop_), stream_(std::move(stream)) {
    timer_.Start(endpoint_.options_.patience,
                 [this] { Answer(FormatAnswer(Failure(HTTP_STATUS_REQUEST_TIMEOUT))); });
    stream_->Start(*this);
  }

 private:
  void OnBytes(std::string_view bytes) override {
    if (has_answered_) return;
    const HttpRequestReader::State state = request_.Read(bytes);
    if (state == HttpRequestReader::State::kIncomplete) return;
    Answer(AnswerTo(request_, state, stream_->peer(), endpoint_.page_));
  }

  void OnWritable() override { WriteAnswer(); }
  void OnClosed(const absl::Status& /*status*/) override { Close(); }

  void Answer(std::string answer) {
    has_answered_ = true;
    unsent_ = std::move(answer);
    timer_.Start(endpoint_.options_.patience, [this] { Close(); });
    WriteAnswer();
  }

  void WriteAnswer() {
    unsent_.erase(0, stream_->Write(unsent_));
    if (unsent_.empty()) stream_->ShutdownWrite();
  }

  // Destroys this.
  void Close() { endpoint_.connections_.erase(this); }

  MetricsEndpoint& endpoint_;
  HttpRequestReader request_;
  bool has_answered_ = false;
  std::string unsent_;  // Of the answer.
  net::Timer timer_;
  std::unique_ptr<net::ByteStream> stream_;
};

absl::StatusOr<std::unique_ptr<MetricsEndpoint>> MetricsEndpoint::Listen(
    net::EventLoop& loop, const std::string& address, Page page,
    const MetricsEndpointOptions& options) {
  const absl::StatusOr<net::Address> parsed = net::Address::Parse(address);
  if (!parsed.ok()) return parsed.status();
  auto endpoint = std::make_unique<MetricsEndpoint>(loop, std::move(page), options);
  auto on_accept = [endpoint = endpoint.get()](std::unique_ptr<net::ByteStream> stream) {
    endpoint->Serve(std::move(stream));
  };
  auto listener = net::Listener::Listen(loop, *parsed, on_accept, {options.unix_admission, false});
  if (!listener.ok()) return listener.status();
  endpoint->listener_ = *std::move(listener);
  return endpoint;
}

MetricsEndpoint::MetricsEndpoint(net::EventLoop& loop, Page page,
                                 const MetricsEndpointOptions& options)
    : loop_(loop), page_(std::move(page)), options_(options) {}

MetricsEndpoint::~MetricsEndpoint() = default;

void MetricsEndpoint::Serve(std::unique_ptr<net::ByteStream> stream) {
  if (connections_.size() >= options_.max_connections) return LogRefusal(stream->peer());
  auto connection = std::make_unique<Connection>(*this, std::move(stream));
  const Connection* key = connection.get();
  connections_.emplace(key, std::move(connection));
}

void MetricsEndpoint::LogRefusal(const net::Peer& peer) {
  const std::optional<std::uint64_t> left_out = refusals_.Admit();
  if (!left_out || !logging::ShouldCreateLogMessage(logging::LOGGING_WARNING)) return;
  logging::LogMessage(__FILE__, __LINE__, logging::LOGGING_WARNING).stream()
      << "Too many connections for metrics; refused " << peer.ToString()
      << net::LogLimiter::More(*left_out);
}

}  // namespace varnic
