#include "core/server/metrics/traffic.h"

#include <string_view>
#include <utility>

namespace varnic {
namespace {

class CountedStream : public net::ByteStream, private net::ByteStream::Visitor {
 public:
  CountedStream(std::unique_ptr<net::ByteStream> stream, Traffic& traffic)
      : traffic_(traffic), stream_(std::move(stream)) {}

  void Start(ByteStream::Visitor& visitor) override {
    visitor_ = &visitor;
    stream_->Start(*this);
  }

  std::size_t Write(std::string_view bytes) override {
    const std::size_t written = stream_->Write(bytes);
    traffic_.sent += written;
    return written;
  }

  std::size_t unwritten() const override { return stream_->unwritten(); }
  void ShutdownWrite() override { stream_->ShutdownWrite(); }
  const net::Peer& peer() const override { return stream_->peer(); }

 private:
  // Each may destroy this.
  void OnBytes(std::string_view bytes) override {
    traffic_.received += bytes.size();
    visitor_->OnBytes(bytes);
  }
  void OnWritable() override { visitor_->OnWritable(); }
  void OnClosed(const absl::Status& status) override { visitor_->OnClosed(status); }

  Traffic& traffic_;
  ByteStream::Visitor* visitor_ = nullptr;
  std::unique_ptr<net::ByteStream> stream_;
};

}  // namespace

std::unique_ptr<net::ByteStream> CountTraffic(std::unique_ptr<net::ByteStream> stream,
                                              Traffic& traffic) {
  return std::make_unique<CountedStream>(std::move(stream), traffic);
}

}  // namespace varnic
