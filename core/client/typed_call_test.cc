#include "core/client/typed_call.h"

#include <google/protobuf/wrappers.pb.h>
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "core/client/testing/scripted_server.h"
#include "rpc/profile/profile.rpc.h"

namespace varnic {
namespace {

using google::protobuf::StringValue;
using testing::ScriptedServer;

const google::protobuf::MethodDescriptor& PathMethod() {
  return *rpc::ProfileRpc::descriptor()->FindMethodByName("Path");
}

class TypedCallTest : public ::testing::Test {
 protected:
  Client::CallId Start(absl::Duration timeout = absl::InfiniteDuration()) {
    return StartCall<StringValue>(
        *client_, PathMethod(), ProfileId(), timeout,
        [this](absl::StatusOr<StringValue> answer) { answers_.push_back(std::move(answer)); });
  }
  void RunUntilAnswered() {
    loop_.RunUntil([this] { return !answers_.empty(); });
  }

  const std::string address_ = testing::NewClientTestAddress();
  net::EventLoop loop_;
  std::unique_ptr<ScriptedServer> server_ = std::make_unique<ScriptedServer>(loop_, address_);
  std::unique_ptr<Client> client_ = std::make_unique<Client>(loop_, address_);
  std::vector<absl::StatusOr<StringValue>> answers_;
};

TEST_F(TypedCallTest, AnswerComesAsAValueAndNotInsideTheCall) {
  Start();
  EXPECT_TRUE(answers_.empty());

  RunUntilAnswered();

  ASSERT_TRUE(answers_[0].ok()) << answers_[0].status();
  EXPECT_EQ(answers_[0]->value(), "good");
}

TEST_F(TypedCallTest, FailureComesAsAStatus) {
  server_->script = [](net::Http2Session& session, net::StreamId stream_id) {
    ScriptedServer::Refuse(session, stream_id, "5");
  };

  Start();
  RunUntilAnswered();

  EXPECT_EQ(answers_[0].status().code(), absl::StatusCode::kNotFound);
}

TEST_F(TypedCallTest, CancelEndsTheCallOnce) {
  const Client::CallId id = Start();

  client_->Cancel(id);
  client_->Cancel(id);

  ASSERT_EQ(answers_.size(), 1U);
  EXPECT_EQ(answers_[0].status().code(), absl::StatusCode::kCancelled);
}

TEST_F(TypedCallTest, TimeoutEndsTheCall) {
  Start(absl::ZeroDuration());

  RunUntilAnswered();

  EXPECT_EQ(answers_[0].status().code(), absl::StatusCode::kDeadlineExceeded);
}

TEST_F(TypedCallTest, ClientThatEndsCancelsTheCall) {
  Start();

  client_ = nullptr;

  ASSERT_EQ(answers_.size(), 1U);
  EXPECT_EQ(answers_[0].status().code(), absl::StatusCode::kCancelled);
}

TEST_F(TypedCallTest, WaitingGivesTheAnswerAsTheResult) {
  const absl::StatusOr<StringValue> answer =
      CallAndWait<StringValue>(*client_, PathMethod(), ProfileId(), absl::InfiniteDuration());

  ASSERT_TRUE(answer.ok()) << answer.status();
  EXPECT_EQ(answer->value(), "good");
}

TEST_F(TypedCallTest, WaitingGivesAFailureAsTheResult) {
  server_ = nullptr;

  const absl::StatusOr<StringValue> answer =
      CallAndWait<StringValue>(*client_, PathMethod(), ProfileId(), absl::InfiniteDuration());

  EXPECT_EQ(answer.status().code(), absl::StatusCode::kUnavailable);
}

}  // namespace
}  // namespace varnic
