#ifndef CORE_NET_TESTING_FAKE_BYTE_STREAM_H_
#define CORE_NET_TESTING_FAKE_BYTE_STREAM_H_

#include <cstddef>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "absl/status/status.h"
#include "core/net/byte_stream.h"

namespace varnic::net::testing {

// The peer at the other end of a ByteStream that is only memory. A test plays it: it says how much
// of what is written gets through, what arrives, and how the stream ends.
//
// Outlives the stream that it makes. One thread only.
class FakePeer {
 public:
  FakePeer() = default;
  FakePeer(const FakePeer&) = delete;
  FakePeer& operator=(const FakePeer&) = delete;

  // Who the stream says is at its other end; before MakeStream().
  void set_identity(Peer identity) { identity_ = std::move(identity); }
  // The one stream of this peer.
  std::unique_ptr<ByteStream> MakeStream();
  // Whether the stream has said that it sends no more.
  bool has_farewell() const { return has_farewell_; }
  // False once the stream is destroyed.
  bool open() const { return stream_ != nullptr; }

  // What the stream has sent since the last call.
  std::string Take();
  // How many writes there were.
  int writes() const { return writes_; }
  // From now on no more than `bytes` get through.
  void LimitRoom(std::size_t bytes) { room_ = bytes; }
  // The stream takes `bytes` more than get through, and holds them: as one that encrypts.
  void LetStreamHold(std::size_t bytes) { hold_ = bytes; }
  // Lets `bytes` more through, and tells a stream whose last write fell short.
  void MakeRoom(std::size_t bytes = std::numeric_limits<std::size_t>::max());

  // All of these: nothing happens if the stream is gone.
  void Send(std::string_view bytes);
  // The same in pieces of `piece_size` bytes.
  void SendInPieces(std::string_view bytes, std::size_t piece_size);
  void Close() { End(absl::OkStatus()); }
  void Break() { End(absl::UnavailableError("connection lost: the cable was cut")); }

 private:
  class Stream;

  void End(const absl::Status& status);

  Peer identity_;
  Stream* stream_ = nullptr;
  std::string taken_;
  std::string held_;
  std::size_t hold_ = 0;
  bool has_farewell_ = false;
  int writes_ = 0;
  std::size_t room_ = std::numeric_limits<std::size_t>::max();
};

}  // namespace varnic::net::testing

#endif  // CORE_NET_TESTING_FAKE_BYTE_STREAM_H_
