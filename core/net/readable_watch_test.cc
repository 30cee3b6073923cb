#include "core/net/readable_watch.h"

#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <utility>

#include "gtest/gtest.h"

namespace varnic::net {
namespace {

class ReadableWatchTest : public ::testing::Test {
 protected:
  ReadableWatchTest() { EXPECT_EQ(pipe2(pipe_, O_CLOEXEC | O_NONBLOCK), 0); }
  ~ReadableWatchTest() override {
    watch_ = nullptr;
    EXPECT_EQ(close(pipe_[0]), 0);
    EXPECT_EQ(close(pipe_[1]), 0);
  }

  void Watch(std::function<void()> on_readable) {
    auto watch = ReadableWatch::Start(loop_, pipe_[0], std::move(on_readable));
    ASSERT_TRUE(watch.ok()) << watch.status();
    watch_ = *std::move(watch);
  }
  void Write(const std::string& text) {
    EXPECT_EQ(write(pipe_[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  void ReadOne() {
    char byte = 0;
    ASSERT_EQ(read(pipe_[0], &byte, 1), 1);
    read_ += byte;
  }
  void RunAll() {
    while (loop_.RunPending() != 0) continue;
  }

  EventLoop loop_;
  int pipe_[2] = {-1, -1};
  std::string read_;
  std::unique_ptr<ReadableWatch> watch_;
};

TEST_F(ReadableWatchTest, TellsOfWhatIsThereAndOfWhatComes) {
  Write("a");
  Watch([this] { ReadOne(); });

  EXPECT_TRUE(loop_.RunUntil([this] { return read_ == "a"; }));
  Write("b");

  EXPECT_TRUE(loop_.RunUntil([this] { return read_ == "ab"; }));
}

TEST_F(ReadableWatchTest, TellsAgainWhileSomethingIsLeft) {
  Watch([this] { ReadOne(); });
  Write("abc");

  EXPECT_TRUE(loop_.RunUntil([this] { return read_ == "abc"; }));
}

TEST_F(ReadableWatchTest, SaysNothingWhenThereIsNothing) {
  Watch([] { ADD_FAILURE(); });

  RunAll();
}

TEST_F(ReadableWatchTest, SaysNothingOnceItIsDestroyed) {
  Watch([] { ADD_FAILURE(); });
  Write("a");
  watch_ = nullptr;

  RunAll();
  ReadOne();  // The descriptor is still open.
  EXPECT_EQ(read_, "a");
}

TEST_F(ReadableWatchTest, MayBeDestroyedInItsCallback) {
  const auto heard = std::make_shared<int>(0);
  Watch([this, heard] {
    watch_ = nullptr;
    ++*heard;
  });
  Write("ab");

  EXPECT_TRUE(loop_.RunUntil([&] { return *heard == 1; }));
  RunAll();
  EXPECT_EQ(*heard, 1);
}

TEST_F(ReadableWatchTest, DescriptorThatCannotBeWatchedIsAnError) {
  const auto watch = ReadableWatch::Start(loop_, /*fd=*/-1, [] {});

  EXPECT_FALSE(watch.ok());
}

}  // namespace
}  // namespace varnic::net
