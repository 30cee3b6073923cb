#include "core/host/browser/output_log.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "absl/strings/str_cat.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using ::testing::ElementsAre;

class OutputLogTest : public ::testing::Test {
 protected:
  OutputLogTest() {
    int fds[2];
    EXPECT_EQ(::pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
    child_ = FileDescriptor(fds[1]);
    log_ = std::make_unique<OutputLog>(loop_, FileDescriptor(fds[0]), /*child=*/7, [this] {
      ++ends_;
      if (destroy_at_end_) log_ = nullptr;
    });
  }

  void Write(const std::string& text) {
    ASSERT_EQ(::write(child_.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
    loop_.RunUntil([this] {
      int unread = 0;
      return ::ioctl(child_.get(), FIONREAD, &unread) != 0 || unread == 0;
    });
  }
  void End() {
    child_.Close();
    EXPECT_TRUE(loop_.RunUntil([this] { return ends_ > 0; }));
  }

  net::EventLoop loop_;
  FileDescriptor child_;
  int ends_ = 0;
  bool destroy_at_end_ = false;
  std::unique_ptr<OutputLog> log_;
};

TEST_F(OutputLogTest, KeepsLines) {
  Write("one\ntw");
  Write("o\n\nthree");

  EXPECT_THAT(log_->last_lines(), ElementsAre("one", "two"));
  EXPECT_TRUE(log_->Says("tw"));
  EXPECT_FALSE(log_->Says("three"));
}

TEST_F(OutputLogTest, EndCompletesTheLastLine) {
  Write("one");

  End();

  EXPECT_THAT(log_->last_lines(), ElementsAre("one"));
  EXPECT_TRUE(log_->has_ended());
  EXPECT_EQ(ends_, 1);
}

TEST_F(OutputLogTest, KeepsNoMoreThanTheLastLines) {
  for (size_t i = 0; i < 3 * OutputLog::kMaxLines; ++i) Write(absl::StrCat(i, "\n"));

  EXPECT_EQ(log_->last_lines().size(), OutputLog::kMaxLines);
  EXPECT_EQ(log_->last_lines().back(), absl::StrCat(3 * OutputLog::kMaxLines - 1));
}

TEST_F(OutputLogTest, CutsALineWithoutEnd) {
  for (int i = 0; i < 10; ++i) Write(std::string(1000, 'x'));
  Write("\nnext\n");

  EXPECT_THAT(log_->last_lines(), ElementsAre(std::string(OutputLog::kMaxLineBytes, 'x'), "next"));
}

TEST_F(OutputLogTest, ReadsWhatIsThereBeforeTheLoopDoes) {
  ASSERT_EQ(::write(child_.get(), "now\n", 4), 4);
  child_.Close();

  log_->ReadAvailable();

  EXPECT_THAT(log_->last_lines(), ElementsAre("now"));
  EXPECT_TRUE(log_->has_ended());
}

TEST_F(OutputLogTest, MayBeDestroyedAtItsEnd) {
  destroy_at_end_ = true;

  End();

  EXPECT_EQ(ends_, 1);
}

}  // namespace
}  // namespace varnic::host
