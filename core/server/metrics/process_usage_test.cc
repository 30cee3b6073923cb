#include "core/server/metrics/process_usage.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>

#include "absl/time/clock.h"
#include "absl/time/time.h"

namespace varnic {
namespace {

TEST(ProcessUsageTest, TellsOfThisProcess) {
  const ProcessUsage usage = ProcessUsage::Read();

  EXPECT_GT(usage.cpu_seconds, 0);
  EXPECT_GT(usage.resident_bytes, 1 << 20);
  EXPECT_GT(usage.virtual_bytes, usage.resident_bytes);
  EXPECT_GE(usage.threads, 1);
  EXPECT_GE(usage.max_fds, usage.open_fds);
  EXPECT_LE(usage.start_time_seconds, absl::ToDoubleSeconds(absl::Now() - absl::UnixEpoch()));
  EXPECT_GT(usage.start_time_seconds,
            absl::ToDoubleSeconds(absl::Now() - absl::Hours(24) - absl::UnixEpoch()));
}

TEST(ProcessUsageTest, CountsFileDescriptorsAndThreads) {
  const ProcessUsage before = ProcessUsage::Read();
  ProcessUsage during;
  const int fd = dup(STDERR_FILENO);

  std::thread([&during] { during = ProcessUsage::Read(); }).join();
  close(fd);

  EXPECT_EQ(during.open_fds, before.open_fds + 1);
  EXPECT_GE(during.threads, before.threads + 1);
}

}  // namespace
}  // namespace varnic
