#include "core/host/browser/pipe_stream.h"

#include <sys/socket.h>

#include <memory>
#include <string>
#include <vector>

#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// A stream, and the ends that a child would have.
class PipeStreamTest : public ::testing::Test, protected net::ByteStream::Visitor {
 protected:
  PipeStreamTest() {
    int in[2], out[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, in), 0);
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, out), 0);
    child_writes_ = FileDescriptor(in[1]);
    child_reads_ = FileDescriptor(out[1]);
    stream_ = std::make_unique<PipeStream>(loop_, FileDescriptor(in[0]), FileDescriptor(out[0]));
    stream_->Start(*this);
  }

  void OnBytes(std::string_view bytes) override { received_ += bytes; }
  void OnWritable() override { ++writable_; }
  void OnClosed(const absl::Status& status) override { closed_.push_back(status); }

  void RunAll() {
    while (loop_.RunPending() != 0) continue;
  }
  // Writes until no more fits; returns how much that was.
  size_t Fill() {
    const std::string text(64 << 10, 'x');
    size_t total = 0;
    size_t written = 0;
    do {
      written = stream_->Write(text);
      total += written;
    } while (written == text.size());
    return total;
  }
  std::string ReadAsChild(size_t size) {
    std::string text(size, '\0');
    text.resize(static_cast<size_t>(::recv(child_reads_.get(), text.data(), size, MSG_WAITALL)));
    return text;
  }

  net::EventLoop loop_;
  FileDescriptor child_writes_;
  FileDescriptor child_reads_;
  std::string received_;
  int writable_ = 0;
  std::vector<absl::Status> closed_;
  std::unique_ptr<PipeStream> stream_;
};

TEST_F(PipeStreamTest, CarriesBytesBothWays) {
  EXPECT_EQ(stream_->Write("question"), 8u);
  EXPECT_EQ(ReadAsChild(8), "question");
  EXPECT_EQ(::send(child_writes_.get(), "answer", 6, 0), 6);

  EXPECT_TRUE(loop_.RunUntil([this] { return received_ == "answer"; }));
}

TEST_F(PipeStreamTest, TellsOnceWhenAChildReadsAgain) {
  const size_t filled = Fill();
  RunAll();
  EXPECT_EQ(writable_, 0);

  EXPECT_EQ(ReadAsChild(filled).size(), filled);

  EXPECT_TRUE(loop_.RunUntil([this] { return writable_ > 0; }));
  RunAll();
  EXPECT_EQ(writable_, 1);
}

TEST_F(PipeStreamTest, TellsEachTimeThatItWasFull) {
  for (int round = 1; round <= 3; ++round) {
    const size_t filled = Fill();
    ReadAsChild(filled);
    EXPECT_TRUE(loop_.RunUntil([&] { return writable_ == round; }));
  }
}

TEST_F(PipeStreamTest, EndOfTheChildIsAnEndWithoutError) {
  EXPECT_EQ(::send(child_writes_.get(), "last", 4, 0), 4);
  child_writes_.Close();

  EXPECT_TRUE(loop_.RunUntil([this] { return !closed_.empty(); }));

  EXPECT_EQ(received_, "last");
  EXPECT_THAT(closed_, ElementsAre(absl::OkStatus()));
}

TEST_F(PipeStreamTest, WritingToAChildThatIsGoneIsAnErrorAndNoSignal) {
  child_reads_.Close();

  EXPECT_EQ(stream_->Write("text"), 0u);
  EXPECT_THAT(closed_, IsEmpty());
  RunAll();

  ASSERT_EQ(closed_.size(), 1u);
  EXPECT_FALSE(closed_[0].ok());
}

TEST_F(PipeStreamTest, ChildSeesTheEndOfADestroyedStream) {
  stream_ = nullptr;

  EXPECT_EQ(ReadAsChild(1), "");
  RunAll();
  EXPECT_THAT(closed_, IsEmpty());
}

}  // namespace
}  // namespace varnic::host
