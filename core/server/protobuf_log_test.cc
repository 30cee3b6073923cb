#include "core/server/protobuf_log.h"

#include <gmock/gmock.h>
#include <google/protobuf/stubs/logging.h>
#include <google/protobuf/wrappers.pb.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "base/logging.h"

namespace varnic {
namespace {

using ::testing::HasSubstr;
using ::testing::MatchesRegex;

constexpr char kTextThatIsNotUtf8[] = "\x0a\x02\xc3\x28";

std::atomic<int> g_lines{0};
std::string* g_last_line = nullptr;

bool TakeLine(int /*severity*/, const char* /*file*/, int /*line*/, size_t message_start,
              const std::string& text) {
  ++g_lines;
  if (g_last_line != nullptr) *g_last_line = text.substr(message_start);
  return true;
}

bool Parses() {
  google::protobuf::StringValue value;
  return value.ParseFromString(kTextThatIsNotUtf8);
}

class ProtobufLogTest : public ::testing::Test {
 protected:
  ProtobufLogTest() {
    ProtobufLog::Install();
    g_lines = 0;
    g_last_line = &last_line_;
    logging::SetLogMessageHandler(&TakeLine);
  }
  ~ProtobufLogTest() override {
    logging::SetLogMessageHandler(nullptr);
    g_last_line = nullptr;
  }

  std::string last_line_;
};

TEST_F(ProtobufLogTest, ComplaintsAreCountedAndOneLineASecondIsWritten) {
  const auto begin = std::chrono::steady_clock::now();
  while (g_lines == 0) Parses();  // The first at once, unless another test has just had one.
  const std::uint64_t before = ProtobufLog::complaints();

  for (int i = 0; i < 1000; ++i) EXPECT_FALSE(Parses());

  const auto seconds =
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - begin);
  EXPECT_EQ(ProtobufLog::complaints() - before, 1000u);
  EXPECT_LE(g_lines, 1 + seconds.count() + 1);
  EXPECT_THAT(last_line_, HasSubstr("protobuf: "));
  EXPECT_THAT(last_line_, HasSubstr("invalid UTF-8"));
}

TEST_F(ProtobufLogTest, ThreadsAreCountedTogether) {
  const std::uint64_t before = ProtobufLog::complaints();
  g_last_line = nullptr;  // Is for one thread.

  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([] {
      for (int j = 0; j < 250; ++j) Parses();
    });
  }
  for (std::thread& thread : threads) thread.join();

  EXPECT_EQ(ProtobufLog::complaints() - before, 1000u);
}

TEST_F(ProtobufLogTest, InstallingAgainChangesNothing) {
  ProtobufLog::Install();
  const std::uint64_t before = ProtobufLog::complaints();

  Parses();

  EXPECT_EQ(ProtobufLog::complaints() - before, 1u);
}

// protobuf may end the process by an exception.
void Die() noexcept {
  GOOGLE_LOG(FATAL) << "a reason to die";
}

TEST(ProtobufLogDeathTest, FatalErrorsEndTheProcessAsBefore) {
  ProtobufLog::Install();

  EXPECT_DEATH(Die(), "libprotobuf FATAL .*a reason to die");
}

}  // namespace
}  // namespace varnic
