#include "tests/raw_peer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "core/net/address.h"
#include "core/net/frame_message.h"
#include "rpc/identifiers.pb.h"

namespace varnic {
namespace {

// Reached only by a failure.
constexpr int kPatienceMs = 60'000;

int ConnectUnix(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  const int descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int result = connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof(address));
  EXPECT_EQ(result, 0) << std::strerror(errno);
  return descriptor;
}

int ConnectTcp(uint16_t port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int descriptor = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int result = connect(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof(address));
  EXPECT_EQ(result, 0) << std::strerror(errno);
  return descriptor;
}

// A field without compression and without a place in the table (RFC 7541, section 6.2.2).
std::string LiteralField(const std::string& name, const std::string& value) {
  return std::string(1, '\0') + static_cast<char>(name.size()) + name +
         static_cast<char>(value.size()) + value;
}

}  // namespace

RawPeer::RawPeer(const std::string& address) {
  const auto parsed = net::Address::Parse(address);
  EXPECT_TRUE(parsed.ok()) << parsed.status();
  descriptor_ = parsed->kind == net::Address::Kind::kUnix ? ConnectUnix(parsed->path)
                                                          : ConnectTcp(parsed->port);
}

RawPeer::RawPeer(RawPeer&& other) noexcept : descriptor_(std::exchange(other.descriptor_, -1)) {}

bool RawPeer::Send(std::string_view bytes) {
  while (!bytes.empty()) {
    if (!Wait(POLLOUT)) return false;
    const ssize_t sent = send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && errno != EAGAIN) return false;
    if (sent > 0) bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

bool RawPeer::SendAtOnce(std::string_view bytes) {
  const ssize_t sent = send(descriptor_, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  return sent == static_cast<ssize_t>(bytes.size());
}

std::string RawPeer::ReadUntilClosed() {
  std::string all;
  while (true) {
    const std::string some = ReadSome();
    if (some.empty()) return all;
    all += some;
  }
}

std::string RawPeer::ReadSome() {
  if (!Wait(POLLIN)) return "";
  char buffer[4096];
  const ssize_t size = recv(descriptor_, buffer, sizeof(buffer), MSG_DONTWAIT);
  return size > 0 ? std::string(buffer, static_cast<std::size_t>(size)) : "";
}

void RawPeer::Close() {
  if (descriptor_ >= 0) close(std::exchange(descriptor_, -1));
}

bool RawPeer::Wait(short events) {
  pollfd entry = {descriptor_, events, 0};
  const int ready = poll(&entry, 1, kPatienceMs);
  EXPECT_GT(ready, 0) << "the server does nothing";
  return ready > 0;
}

std::string ClientPreface() {
  return "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" + Http2Frame(/*SETTINGS*/ 4, 0, 0, "");
}

std::string Http2Frame(uint8_t type, uint8_t flags, uint32_t stream_id,
                       const std::string& payload) {
  const auto size = static_cast<uint32_t>(payload.size());
  std::string frame;
  for (const int shift : {16, 8, 0}) frame.push_back(static_cast<char>(size >> shift));
  frame.push_back(static_cast<char>(type));
  frame.push_back(static_cast<char>(flags));
  for (const int shift : {24, 16, 8, 0}) frame.push_back(static_cast<char>(stream_id >> shift));
  return frame + payload;
}

std::string PathHeaders(uint32_t stream_id) {
  const std::string block =
      LiteralField(":method", "POST") + LiteralField(":scheme", "http") +
      LiteralField(":path", "/rpc.Profile/Path") + LiteralField(":authority", "localhost") +
      LiteralField("te", "trailers") + LiteralField("content-type", "application/grpc");
  return Http2Frame(/*HEADERS*/ 1, /*END_HEADERS*/ 4, stream_id, block);
}

std::string PathCall(uint32_t stream_id, const std::string& id) {
  ProfileId request;
  request.set_value(id);
  return PathHeaders(stream_id) +
         Http2Frame(/*DATA*/ 0, /*END_STREAM*/ 1, stream_id, net::FrameMessage(request));
}

}  // namespace varnic
