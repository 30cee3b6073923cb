#include "tools/standard_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <initializer_list>

namespace varnic::tools {
namespace {

bool IsOpen(int descriptor) {
  return fcntl(descriptor, F_GETFD) >= 0 || errno != EBADF;
}

}  // namespace

bool ReserveStandardFiles() {
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (IsOpen(descriptor)) continue;
    // The lowest number that is free; open(2): what O_PATH opens can neither be read nor written.
    if (open("/", O_PATH | O_CLOEXEC) != descriptor) return false;
  }
  return true;
}

}  // namespace varnic::tools
