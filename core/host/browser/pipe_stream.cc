#include "core/host/browser/pipe_stream.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

#include "absl/status/statusor.h"

namespace varnic::host {
namespace {

// One turn of the loop reads at most this much, so that a browser does not starve the others.
constexpr size_t kReadBytes = 64 << 10;

// An epoll instance that is readable while `fd` is writable.
FileDescriptor WatchRoom(int fd) {
  FileDescriptor room(::epoll_create1(EPOLL_CLOEXEC));
  epoll_event event{};
  event.events = EPOLLOUT;
  if (!room || ::epoll_ctl(room.get(), EPOLL_CTL_ADD, fd, &event) != 0) return FileDescriptor();
  return room;
}

}  // namespace

PipeStream::PipeStream(net::EventLoop& loop, FileDescriptor from_child, FileDescriptor to_child)
    : loop_(loop), from_child_(std::move(from_child)), to_child_(std::move(to_child)) {}

void PipeStream::Start(Visitor& visitor) {
  visitor_ = &visitor;
  auto watch = net::ReadableWatch::Start(loop_, from_child_.get(), [this] { Read(); });
  if (!watch.ok()) return FailLater(watch.status());
  read_watch_ = *std::move(watch);
}

void PipeStream::Read() {
  static thread_local char buffer[kReadBytes];
  const ssize_t size = ::recv(from_child_.get(), buffer, sizeof(buffer), MSG_DONTWAIT);
  if (size > 0) return visitor_->OnBytes(std::string_view(buffer, static_cast<size_t>(size)));
  if (size < 0 && (errno == EAGAIN || errno == EINTR)) return;
  read_watch_ = nullptr;
  visitor_->OnClosed(size == 0 ? absl::OkStatus()
                               : absl::ErrnoToStatus(errno, "cannot read from the child"));
}

size_t PipeStream::Write(std::string_view bytes) {
  size_t written = 0;
  while (written < bytes.size()) {
    const ssize_t size = ::send(to_child_.get(), bytes.data() + written, bytes.size() - written,
                                MSG_DONTWAIT | MSG_NOSIGNAL);
    if (size >= 0) {
      written += static_cast<size_t>(size);
    } else if (errno == EAGAIN) {
      WaitWritable();
      break;
    } else if (errno != EINTR) {
      FailLater(absl::ErrnoToStatus(errno, "cannot write to the child"));
      break;
    }
  }
  return written;
}

void PipeStream::WaitWritable() {
  if (room_watch_ != nullptr) return;
  if (!room_) room_ = WatchRoom(to_child_.get());
  auto watch = net::ReadableWatch::Start(loop_, room_.get(), [this] {
    room_watch_ = nullptr;
    visitor_->OnWritable();
  });
  if (!watch.ok()) return FailLater(watch.status());
  room_watch_ = *std::move(watch);
}

void PipeStream::FailLater(const absl::Status& status) {
  read_watch_ = nullptr;
  loop_.Post(lifetime_.Guard([this, status] { visitor_->OnClosed(status); }));
}

}  // namespace varnic::host
