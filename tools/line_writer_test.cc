#include "tools/line_writer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <string>

#include "core/net/testing/fake_clock.h"

namespace varnic::tools {
namespace {

constexpr absl::Duration kRetry = absl::Milliseconds(50);

class LineWriterTest : public ::testing::Test {
 protected:
  LineWriterTest() {
    std::signal(SIGPIPE, SIG_IGN);
    std::array<int, 2> ends = {};
    EXPECT_EQ(pipe(ends.data()), 0);
    Use(ends[0], ends[1]);
  }

  void Use(int reader, int writer) {
    reader_ = host::FileDescriptor(reader);
    writer_ = host::FileDescriptor(writer);
    EXPECT_EQ(fcntl(reader, F_SETFL, O_NONBLOCK), 0);
  }

  std::string Read() {
    std::string text;
    std::array<char, 4096> buffer;
    ssize_t count = 0;
    while ((count = read(reader_.get(), buffer.data(), buffer.size())) > 0) {
      text.append(buffer.data(), static_cast<std::size_t>(count));
    }
    return text;
  }

  // All that comes while something waits.
  std::string ReadAll(const LineWriter& writer) {
    std::string text = Read();
    while (writer.waiting()) {
      clock_.Advance(kRetry);
      loop_.RunPending();
      text += Read();
    }
    return text;
  }

  LineWriter::Listeners Listeners() {
    return {[](std::size_t dropped) { return std::to_string(dropped) + " dropped\n"; },
            [this](int error) { error_ = error; }};
  }

  net::testing::FakeClock clock_;
  net::EventLoop loop_;
  host::FileDescriptor reader_;
  host::FileDescriptor writer_;
  int error_ = 0;
};

TEST_F(LineWriterTest, LineIsWrittenAtOnce) {
  LineWriter writer(loop_, writer_.get(), Listeners());

  writer.Write("line\n");

  EXPECT_FALSE(writer.waiting());
  EXPECT_EQ(Read(), "line\n");
}

TEST_F(LineWriterTest, ReaderThatHasStoppedHoldsNobodyUp) {
  LineWriter writer(loop_, writer_.get(), Listeners());
  const std::string text = std::string(500000, 'a') + "\n";

  writer.Write(text);

  EXPECT_TRUE(writer.waiting());
  EXPECT_EQ(ReadAll(writer), text);
  EXPECT_EQ(error_, 0);
}

TEST_F(LineWriterTest, DescriptorStaysBlockingForOthers) {
  LineWriter writer(loop_, writer_.get(), Listeners());
  writer.Write("line\n");

  EXPECT_EQ(fcntl(writer_.get(), F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(LineWriterTest, WhatComesWhenTheBoundIsReachedIsDroppedAndSaid) {
  LineWriter writer(loop_, writer_.get(), Listeners());
  const std::string line = std::string(LineWriter::kMaxWaitingBytes / 2, 'a') + "\n";
  for (int i = 0; i < 5; ++i) writer.Write(line);
  writer.Write("short\n");

  const std::string text = ReadAll(writer);

  EXPECT_EQ(text, line + line + "4 dropped\n");
  writer.Write("next\n");
  EXPECT_EQ(Read(), "next\n");
}

TEST_F(LineWriterTest, SocketMayBeStuckToo) {
  std::array<int, 2> ends = {};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), 0);
  Use(ends[0], ends[1]);
  LineWriter writer(loop_, writer_.get(), Listeners());
  const std::string text(1000000, 'a');

  writer.Write(text);

  EXPECT_TRUE(writer.waiting());
  EXPECT_EQ(ReadAll(writer), text);
}

TEST_F(LineWriterTest, TerminalThatIsStoppedHoldsNobodyUp) {
  int person = -1;
  int program = -1;
  ASSERT_EQ(openpty(&person, &program, nullptr, nullptr, nullptr), 0);
  Use(person, program);
  LineWriter writer(loop_, writer_.get(), Listeners());
  ASSERT_EQ(tcflow(program, TCOOFF), 0);

  writer.Write("line\n");
  writer.Finish(absl::Milliseconds(1));

  EXPECT_TRUE(writer.waiting());
  ASSERT_EQ(tcflow(program, TCOON), 0);
  EXPECT_EQ(ReadAll(writer), "line\r\n");
}

TEST_F(LineWriterTest, ReaderThatIsGoneIsAnErrorOnce) {
  LineWriter writer(loop_, writer_.get(), Listeners());
  reader_.Close();

  writer.Write("line\n");
  EXPECT_EQ(error_, EPIPE);
  error_ = 0;
  writer.Write("line\n");

  EXPECT_EQ(error_, 0);
  EXPECT_FALSE(writer.waiting());
}

TEST_F(LineWriterTest, WrittenIsToldWhenNothingWaits) {
  LineWriter writer(loop_, writer_.get(), Listeners());
  bool written = false;
  writer.Write(std::string(100000, 'a'));
  writer.WhenWritten([&] { written = true; });
  loop_.RunPending();
  EXPECT_FALSE(written);

  ReadAll(writer);

  EXPECT_TRUE(written);
}

TEST_F(LineWriterTest, FinishGivesUpOnAReaderThatHasStopped) {
  LineWriter writer(loop_, writer_.get(), Listeners());
  writer.Write(std::string(100000, 'a'));

  writer.Finish(absl::Milliseconds(1));

  EXPECT_TRUE(writer.waiting());
}

}  // namespace
}  // namespace varnic::tools
