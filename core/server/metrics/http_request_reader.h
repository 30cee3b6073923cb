#ifndef CORE_SERVER_METRICS_HTTP_REQUEST_READER_H_
#define CORE_SERVER_METRICS_HTTP_REQUEST_READER_H_

#include <http_parser.h>

#include <cstddef>
#include <string>
#include <string_view>

namespace varnic {

// Reads the head of one HTTP/1 request, in pieces as they come, and keeps of it what it asks for.
// Whatever follows the head is the business of nobody.
class HttpRequestReader {
 public:
  // A longer head is not read.
  static constexpr std::size_t kMaxBytes = 8 << 10;

  enum class State { kIncomplete, kComplete, kMalformed, kTooLarge };

  HttpRequestReader();
  HttpRequestReader(const HttpRequestReader&) = delete;
  HttpRequestReader& operator=(const HttpRequestReader&) = delete;

  // The state with these bytes too. No more of them once it is another than kIncomplete.
  State Read(std::string_view bytes);

  // All only of a complete head. The method is "GET", for example; the path is without a query; the
  // host is what its header says, and empty without.
  std::string_view method() const;
  std::string_view path() const;
  const std::string& host() const { return host_; }

 private:
  static int OnUrl(http_parser* parser, const char* bytes, std::size_t size);
  static int OnHeaderField(http_parser* parser, const char* bytes, std::size_t size);
  static int OnHeaderValue(http_parser* parser, const char* bytes, std::size_t size);
  static int OnHeadersComplete(http_parser* parser);

  http_parser parser_;
  std::size_t bytes_read_ = 0;
  std::string url_;
  std::string field_;  // The header that is being read.
  bool field_is_complete_ = false;
  std::string host_;
  bool is_complete_ = false;
};

}  // namespace varnic

#endif  // CORE_SERVER_METRICS_HTTP_REQUEST_READER_H_
