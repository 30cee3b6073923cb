#include "core/net/readable_watch.h"

#include <utility>

#include "absl/status/status.h"
#include "core/net/asio.h"
#include "core/net/lifetime.h"

namespace varnic::net {

class ReadableWatch::Impl {
 public:
  Impl(EventLoop& loop, std::function<void()> on_readable)
      : descriptor_(loop.context()), on_readable_(std::move(on_readable)) {}
  // The caller closes it.
  ~Impl() {
    if (descriptor_.is_open()) descriptor_.release();
  }

  absl::Status Start(int fd) {
    asio::error_code error;
    descriptor_.assign(fd, error);
    if (error) return absl::ErrnoToStatus(error.value(), "cannot watch a file descriptor");
    Wait();
    return absl::OkStatus();
  }

 private:
  void Wait() {
    descriptor_.async_wait(asio::posix::stream_descriptor::wait_read,
                           lifetime_.Guard([this](const asio::error_code& error) {
                             if (error) return;
                             // Either may be gone when the callback returns.
                             auto wait_again = lifetime_.Guard([this] { Wait(); });
                             const auto on_readable = on_readable_;
                             on_readable();
                             wait_again();
                           }));
  }

  asio::posix::stream_descriptor descriptor_;
  const std::function<void()> on_readable_;
  Lifetime lifetime_;
};

ReadableWatch::ReadableWatch(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
ReadableWatch::~ReadableWatch() = default;

absl::StatusOr<std::unique_ptr<ReadableWatch>> ReadableWatch::Start(
    EventLoop& loop, int fd, std::function<void()> on_readable) {
  auto impl = std::make_unique<Impl>(loop, std::move(on_readable));
  const absl::Status status = impl->Start(fd);
  if (!status.ok()) return status;
  return std::unique_ptr<ReadableWatch>(new ReadableWatch(std::move(impl)));
}

}  // namespace varnic::net
