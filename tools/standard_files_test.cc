#include "tools/standard_files.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <initializer_list>

namespace varnic::tools {
namespace {

// In a process of its own, which then ends with 0 if all is well.
[[noreturn]] void ReserveWithout(std::initializer_list<int> closed) {
  for (const int descriptor : closed) close(descriptor);
  bool well = ReserveStandardFiles() && open("/dev/null", O_RDWR) > STDERR_FILENO;
  for (const int descriptor : closed) {
    char byte = 0;
    well = well && write(descriptor, &byte, 1) == -1 && errno == EBADF;
    well = well && read(descriptor, &byte, 1) == -1 && errno == EBADF;
  }
  _exit(well ? 0 : 1);
}

// The same with three files that take everything.
[[noreturn]] void ReserveWithAll() {
  const int file = open("/dev/null", O_RDWR);
  for (const int descriptor : {0, 1, 2}) dup2(file, descriptor);
  bool well = ReserveStandardFiles();
  for (const int descriptor : {0, 1, 2}) well = well && write(descriptor, "", 1) == 1;
  _exit(well ? 0 : 1);
}

TEST(StandardFilesDeathTest, PlaceOfAClosedStandardFileStaysItsOwn) {
  EXPECT_EXIT(ReserveWithout({0}), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(ReserveWithout({1}), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(ReserveWithout({2}), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(ReserveWithout({0, 1, 2}), testing::ExitedWithCode(0), "");
}

TEST(StandardFilesDeathTest, OpenStandardFilesAreLeftAlone) {
  EXPECT_EXIT(ReserveWithAll(), testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace varnic::tools
