#include "core/net/edge/refused_connections.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "core/net/edge/connection_cap.h"

namespace varnic::net {
namespace {

constexpr std::size_t kMaxLingering = 64;
constexpr absl::Duration kLinger = absl::Seconds(1);

// Without window from the server, calls bring no more than 64 KiB of messages.
constexpr std::size_t kMaxDroppedBytes = 256 << 10;

void Refuse(ByteStream& stream) {
  (void)stream.Write(RefusalOfConnection());  // As far as it goes.
  stream.ShutdownWrite();
}

}  // namespace

class RefusedConnections::Connection : private ByteStream::Visitor {
 public:
  Connection(RefusedConnections& owner, std::unique_ptr<ByteStream> stream)
      : owner_(owner), timer_(owner.loop_), stream_(std::move(stream)) {
    stream_->Start(*this);
    Refuse(*stream_);
    timer_.Start(kLinger, [this] { owner_.Remove(*this); });
  }

 private:
  void OnBytes(std::string_view bytes) override {
    dropped_bytes_ += bytes.size();
    if (dropped_bytes_ > kMaxDroppedBytes) owner_.Remove(*this);
  }
  void OnWritable() override {}
  void OnClosed(const absl::Status& /*status*/) override { owner_.Remove(*this); }

  RefusedConnections& owner_;
  Timer timer_;
  std::size_t dropped_bytes_ = 0;
  std::unique_ptr<ByteStream> stream_;  // Last: calls into the rest.
};

RefusedConnections::RefusedConnections(EventLoop& loop) : loop_(loop) {}

RefusedConnections::~RefusedConnections() = default;

void RefusedConnections::Add(std::unique_ptr<ByteStream> stream) {
  if (lingering_.size() >= kMaxLingering) return Refuse(*stream);
  lingering_.push_back(std::make_unique<Connection>(*this, std::move(stream)));
}

void RefusedConnections::Clear() {
  lingering_.clear();
}

void RefusedConnections::Remove(const Connection& connection) {
  const auto found = std::find_if(lingering_.begin(), lingering_.end(),
                                  [&](const auto& each) { return each.get() == &connection; });
  if (found != lingering_.end()) lingering_.erase(found);
}

}  // namespace varnic::net
