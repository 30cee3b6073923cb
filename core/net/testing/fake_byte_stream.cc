#include "core/net/testing/fake_byte_stream.h"

#include <algorithm>
#include <utility>

namespace varnic::net::testing {

class FakePeer::Stream : public ByteStream {
 public:
  explicit Stream(FakePeer& peer) : peer_(peer) { peer_.stream_ = this; }
  ~Stream() override { peer_.stream_ = nullptr; }

  void Start(Visitor& visitor) override { visitor_ = &visitor; }

  std::size_t Write(std::string_view bytes) override {
    ++peer_.writes_;
    std::size_t written = bytes.size();
    if (written > peer_.room_) {
      written = std::min(written, peer_.room_ + peer_.hold_ - peer_.held_.size());
    }
    peer_.held_ += bytes.substr(0, written);
    PassOn();
    if (written < bytes.size() || !peer_.held_.empty()) waits_for_room_ = true;
    return written;
  }

  std::size_t unwritten() const override { return peer_.held_.size(); }

  void PassOn() {
    const std::size_t passed = std::min(peer_.held_.size(), peer_.room_);
    peer_.room_ -= passed;
    peer_.taken_ += peer_.held_.substr(0, passed);
    peer_.held_.erase(0, passed);
  }

  void ShutdownWrite() override { peer_.has_farewell_ = true; }

  const Peer& peer() const override { return peer_.identity_; }

  Visitor& visitor() { return *visitor_; }
  bool StopWaitingForRoom() { return std::exchange(waits_for_room_, false); }

 private:
  FakePeer& peer_;
  Visitor* visitor_ = nullptr;
  bool waits_for_room_ = false;
};

std::unique_ptr<ByteStream> FakePeer::MakeStream() {
  return std::make_unique<Stream>(*this);
}

std::string FakePeer::Take() {
  return std::exchange(taken_, std::string());
}

void FakePeer::MakeRoom(std::size_t bytes) {
  room_ = bytes < std::numeric_limits<std::size_t>::max() - room_
              ? room_ + bytes
              : std::numeric_limits<std::size_t>::max();
  if (open()) stream_->PassOn();
  if (open() && held_.empty() && stream_->StopWaitingForRoom()) stream_->visitor().OnWritable();
}

void FakePeer::Send(std::string_view bytes) {
  if (open()) stream_->visitor().OnBytes(bytes);
}

void FakePeer::SendInPieces(std::string_view bytes, std::size_t piece_size) {
  for (; !bytes.empty(); bytes.remove_prefix(std::min(piece_size, bytes.size()))) {
    Send(bytes.substr(0, piece_size));
  }
}

void FakePeer::End(const absl::Status& status) {
  if (open()) stream_->visitor().OnClosed(status);
}

}  // namespace varnic::net::testing
