#include "tools/stream_output.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string>

namespace varnic::tools {
namespace {

using ::testing::EndsWith;

// Both ends of a pipe, of which the reader's does not block.
class Pipe {
 public:
  Pipe() {
    std::array<int, 2> ends = {};
    EXPECT_EQ(pipe(ends.data()), 0);
    reader_ = host::FileDescriptor(ends[0]);
    writer_ = host::FileDescriptor(ends[1]);
    EXPECT_EQ(fcntl(reader_.get(), F_SETFL, O_NONBLOCK), 0);
  }

  int writer() const { return writer_.get(); }
  // What is there now.
  std::string Read() {
    std::string text;
    std::array<char, 4096> buffer;
    ssize_t count = 0;
    while ((count = read(reader_.get(), buffer.data(), buffer.size())) > 0) {
      text.append(buffer.data(), static_cast<std::size_t>(count));
    }
    return text;
  }

 private:
  host::FileDescriptor reader_;
  host::FileDescriptor writer_;
};

class StreamOutputTest : public ::testing::Test {
 protected:
  StreamOutput::Options Options(bool json) {
    return {json, 9, out_.writer(), err_.writer(), absl::UTCTimeZone()};
  }

  // Until what waits has been written, too.
  std::string ReadUntil(const std::string& text) {
    std::string all;
    EXPECT_TRUE(loop_.RunUntil([&] {
      all += out_.Read();
      return all.find(text) != std::string::npos;
    }));
    return all;
  }

  const Happening event_ = {"network", "P", "online"};
  const Happening notice_ = {"up", std::nullopt, "connected"};
  net::EventLoop loop_;
  Pipe out_;
  Pipe err_;
  int broken_ = 0;
};

TEST_F(StreamOutputTest, PeopleReadOfTheConnectionOnStandardError) {
  StreamOutput output(loop_, Options(/*json=*/false), {});

  output.Tell(event_);
  output.Tell(notice_);

  // Behind the date and the time.
  EXPECT_EQ(out_.Read().substr(19), "  P          online\n");
  EXPECT_EQ(err_.Read().substr(19), "  varnicctl: connected\n");
}

TEST_F(StreamOutputTest, ProgramsReadEverythingInOnePlace) {
  StreamOutput output(loop_, Options(/*json=*/true), {});

  output.Tell(event_);
  output.Tell(notice_);

  const std::string lines = out_.Read();
  const std::size_t end = lines.find('\n');
  EXPECT_EQ(nlohmann::json::parse(lines.substr(0, end), nullptr, false)["type"], "network");
  EXPECT_EQ(nlohmann::json::parse(lines.substr(end + 1), nullptr, false)["type"], "up");
  EXPECT_EQ(err_.Read(), "");
}

TEST_F(StreamOutputTest, FullDiskIsNoticed) {
  const host::FileDescriptor full(open("/dev/full", O_WRONLY));
  StreamOutput::Options options = Options(/*json=*/true);
  options.out = full.get();
  StreamOutput output(loop_, options, [this](int error) { broken_ = error; });

  output.Tell(event_);

  EXPECT_EQ(broken_, ENOSPC);
}

TEST_F(StreamOutputTest, ReaderThatComesBackIsToldWhatWasDropped) {
  StreamOutput output(loop_, Options(/*json=*/true), {});
  const Happening large = {"network", "P", "", {{"text", std::string(100000, 'a')}}};
  for (int i = 0; i < 20; ++i) output.Tell(large);

  const std::string lines = ReadUntil("dropped");

  const std::size_t note = lines.rfind('\n', lines.size() - 2) + 1;
  const auto json = nlohmann::json::parse(lines.substr(note), nullptr, false);
  EXPECT_EQ(json["type"], "dropped");
  const auto written = std::count(lines.begin(), lines.end(), '\n') - 1;
  EXPECT_EQ(json["lines"].get<int>(), 20 - written);
  EXPECT_GE(written, 10);
}

TEST_F(StreamOutputTest, PeopleReadWhatWasDropped) {
  StreamOutput output(loop_, Options(/*json=*/false), {});
  const Happening large = {"network", "P", std::string(1 << 20, 'a')};
  output.Tell({"network", "P", std::string(900000, 'a')});
  output.Tell(large);
  output.Tell(event_);

  const std::string lines = ReadUntil("dropped");

  EXPECT_THAT(lines, EndsWith("  varnicctl: lines dropped here, because nobody read them: 2\n"));
}

}  // namespace
}  // namespace varnic::tools
