#ifndef TESTS_RAW_PEER_H_
#define TESTS_RAW_PEER_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace varnic {

// A plain socket that is connected to a server and sends it whatever a test likes.
class RawPeer {
 public:
  // Connects, or fails the test.
  explicit RawPeer(const std::string& address);
  RawPeer(RawPeer&& other) noexcept;
  RawPeer(const RawPeer&) = delete;
  RawPeer& operator=(const RawPeer&) = delete;
  ~RawPeer() { Close(); }

  // Sends all of it. False once the server has closed the connection.
  bool Send(std::string_view bytes);
  // Sends as much of it as goes at once, and reads nothing: true if that was all.
  bool SendAtOnce(std::string_view bytes);

  // All that comes until the server closes the connection; fails the test if it does not.
  std::string ReadUntilClosed();
  // At least one byte; empty once the server has closed the connection.
  std::string ReadSome();

  void Close();

 private:
  // False if nothing happens.
  bool Wait(short events);

  int descriptor_ = -1;
};

// HTTP/2 by hand (RFC 9113).
std::string ClientPreface();  // With an empty SETTINGS frame.
std::string Http2Frame(uint8_t type, uint8_t flags, uint32_t stream_id, const std::string& payload);
// The headers of a gRPC call, and the message that asks for `id`.
std::string PathHeaders(uint32_t stream_id);
std::string PathCall(uint32_t stream_id, const std::string& id);

}  // namespace varnic

#endif  // TESTS_RAW_PEER_H_
