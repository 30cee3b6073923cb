#include "core/server/metrics/http_request_reader.h"

#include <utility>

#include "absl/strings/match.h"

namespace varnic {

HttpRequestReader::HttpRequestReader() : parser_() {
  http_parser_init(&parser_, HTTP_REQUEST);
  parser_.data = this;
}

HttpRequestReader::State HttpRequestReader::Read(std::string_view bytes) {
  static const http_parser_settings settings = [] {
    http_parser_settings made;
    http_parser_settings_init(&made);
    made.on_url = &OnUrl;
    made.on_header_field = &OnHeaderField;
    made.on_header_value = &OnHeaderValue;
    made.on_headers_complete = &OnHeadersComplete;
    return made;
  }();
  if (bytes.empty()) return State::kIncomplete;  // To the parser, it would be the end.
  bytes = bytes.substr(0, kMaxBytes - bytes_read_);
  bytes_read_ += bytes.size();
  http_parser_execute(&parser_, &settings, bytes.data(), bytes.size());
  if (is_complete_) return parser_.http_major == 1 ? State::kComplete : State::kMalformed;
  if (HTTP_PARSER_ERRNO(&parser_) != HPE_OK) return State::kMalformed;
  return bytes_read_ < kMaxBytes ? State::kIncomplete : State::kTooLarge;
}

std::string_view HttpRequestReader::method() const {
  return http_method_str(static_cast<http_method>(parser_.method));
}

std::string_view HttpRequestReader::path() const {
  http_parser_url url;
  http_parser_url_init(&url);
  const bool is_connect = parser_.method == HTTP_CONNECT;
  if (http_parser_parse_url(url_.data(), url_.size(), is_connect ? 1 : 0, &url) != 0) return "";
  if ((url.field_set & (1 << UF_PATH)) == 0) return "";
  return std::string_view(url_).substr(url.field_data[UF_PATH].off, url.field_data[UF_PATH].len);
}

int HttpRequestReader::OnUrl(http_parser* parser, const char* bytes, std::size_t size) {
  static_cast<HttpRequestReader*>(parser->data)->url_.append(bytes, size);
  return 0;
}

int HttpRequestReader::OnHeaderField(http_parser* parser, const char* bytes, std::size_t size) {
  auto& self = *static_cast<HttpRequestReader*>(parser->data);
  if (std::exchange(self.field_is_complete_, false)) self.field_.clear();
  self.field_.append(bytes, size);
  return 0;
}

int HttpRequestReader::OnHeaderValue(http_parser* parser, const char* bytes, std::size_t size) {
  auto& self = *static_cast<HttpRequestReader*>(parser->data);
  self.field_is_complete_ = true;
  if (absl::EqualsIgnoreCase(self.field_, "host")) self.host_.append(bytes, size);
  return 0;
}

int HttpRequestReader::OnHeadersComplete(http_parser* parser) {
  static_cast<HttpRequestReader*>(parser->data)->is_complete_ = true;
  http_parser_pause(parser, 1);  // A body is not read.
  return 0;
}

}  // namespace varnic
