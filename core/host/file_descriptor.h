#ifndef CORE_HOST_FILE_DESCRIPTOR_H_
#define CORE_HOST_FILE_DESCRIPTOR_H_

#include <unistd.h>

#include <utility>

namespace varnic::host {

// Owns an open file descriptor, or none. Move-only.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int fd) : fd_(fd) {}
  FileDescriptor(FileDescriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~FileDescriptor() { Close(); }

  void Close() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

 private:
  int fd_ = -1;
};

}  // namespace varnic::host

#endif  // CORE_HOST_FILE_DESCRIPTOR_H_
