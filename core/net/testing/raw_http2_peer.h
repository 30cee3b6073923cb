#ifndef CORE_NET_TESTING_RAW_HTTP2_PEER_H_
#define CORE_NET_TESTING_RAW_HTTP2_PEER_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct nghttp2_session;

namespace varnic::net::testing {

// A peer that speaks HTTP/2 and knows no manners: it sends whatever a test wants, and writes down
// what it hears. Bytes go in and out as strings.
class RawHttp2Peer {
 public:
  enum class Role { kClient, kServer };
  using Fields = std::vector<std::pair<std::string, std::string>>;

  // Has its greeting ready; a server allows `max_concurrent_streams`.
  explicit RawHttp2Peer(Role role, uint32_t max_concurrent_streams = 100,
                        uint32_t stream_window_bytes = 65535);
  ~RawHttp2Peer();
  RawHttp2Peer(const RawHttp2Peer&) = delete;
  RawHttp2Peer& operator=(const RawHttp2Peer&) = delete;

  // A client's. The stream goes on with Data() or Trailers() unless `end`.
  int32_t Request(const Fields& fields, bool end = false);
  // A server's.
  void Respond(int32_t stream_id, const Fields& fields, bool end = false);
  // A server's: an informational header block before the answer.
  void Inform(int32_t stream_id, const Fields& fields);
  void Data(int32_t stream_id, std::string_view bytes, bool end = false);
  void Trailers(int32_t stream_id, const Fields& fields);
  void Reset(int32_t stream_id, uint32_t error_code);
  void Goaway(int32_t last_stream_id, uint32_t error_code = 0, const std::string& text = "");
  void Ping();
  // Gives back flow-control window: `stream_id` 0 is the connection's.
  void Read(int32_t stream_id, int32_t bytes);

  std::string Take();
  void Receive(std::string_view bytes);

  // What was received: "HEADERS 1 :status=200 ...", "DATA 1 bytes" (adjacent ones are joined),
  // "END 1", "RESET 1 8", "GOAWAY 0 code", "PING" (which is answered). Settings and window updates
  // are left out.
  const std::vector<std::string>& events() const { return events_; }
  // What the last GOAWAY gave as its reason.
  const std::string& goaway_text() const { return goaway_text_; }
  // All DATA of a stream.
  const std::string& body(int32_t stream_id) { return bodies_[stream_id]; }

 private:
  struct Callbacks;
  struct Outgoing {
    std::string data;
    Fields trailers;
    bool end = false;
  };
  struct SessionDeleter {
    void operator()(nghttp2_session* session) const;
  };

  std::map<int32_t, Outgoing> outgoing_;
  std::map<int32_t, std::string> bodies_;
  std::string fields_;
  std::vector<std::string> events_;
  std::string goaway_text_;
  int32_t last_data_ = 0;  // The stream of the last event, if that is DATA.
  std::unique_ptr<nghttp2_session, SessionDeleter> session_;
};

// One HTTP/2 frame, by hand.
std::string MakeFrame(uint8_t type, uint8_t flags, int32_t stream_id, std::string_view payload);

// What a client's first bytes are, before its frames.
inline constexpr std::string_view kClientPreface = "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n";

}  // namespace varnic::net::testing

#endif  // CORE_NET_TESTING_RAW_HTTP2_PEER_H_
