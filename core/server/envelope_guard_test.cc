#include "core/server/envelope_guard.h"

#include <google/protobuf/descriptor.h>
#include <gtest/gtest.h>

#include <string>

#include "rpc/profile/profile.rpc.h"

namespace varnic {
namespace {

using Control = EnvelopeGuard::Content::Control;

const google::protobuf::MethodDescriptor& Method(const std::string& name) {
  return *rpc::ProfileRpc::descriptor()->FindMethodByName(name);
}

class CallbackGuardTest : public ::testing::Test {
 protected:
  absl::Status Inspect(const rpc::CanAccessFile& message, bool is_error = false) {
    return InspectBytes(message.SerializeAsString(), is_error);
  }
  absl::Status InspectBytes(const std::string& payload, bool is_error = false) {
    content_ = {};
    return guard_.Inspect(payload, is_error, content_);
  }

  EnvelopeGuard guard_{Method("OnCanAccessFile"), rpc::CanAccessFile::default_instance()};
  EnvelopeGuard::Content content_;
};

TEST_F(CallbackGuardTest, AnswerPassesWithItsCallId) {
  rpc::CanAccessFile answer;
  answer.mutable_response()->set_allow(true);
  answer.set_call_id(-3);

  EXPECT_TRUE(Inspect(answer).ok());
  EXPECT_EQ(content_.call_id, -3);
  EXPECT_FALSE(content_.has_error);
  EXPECT_FALSE(content_.is_subscription);
}

TEST_F(CallbackGuardTest, PlainAnswerPassesLikeAnyOther) {
  rpc::CanAccessFile answer;
  answer.mutable_profile_id()->set_value("work");
  answer.mutable_response();
  answer.set_call_id(300);
  const std::string plain = answer.SerializeAsString();

  for (const std::string& payload : {plain, plain + "\x78\x01"}) {  // An unknown field.
    EXPECT_TRUE(InspectBytes(payload).ok());
    EXPECT_EQ(content_.call_id, 300);
    EXPECT_FALSE(content_.has_error);
    EXPECT_FALSE(content_.is_subscription);
  }
}

// Protobuf stops at it, before it has seen the answer; the stream would die of what is left.
TEST_F(CallbackGuardTest, AnswerBehindALengthThatProtobufDoesNotReadIsRefused) {
  const std::string no_bytes("\x80\x80\x80\x80\x80\0", 6);
  const std::string answer("\x22\0", 2);

  EXPECT_EQ(InspectBytes("\x0a" + no_bytes + answer).code(), absl::StatusCode::kInvalidArgument);
  EXPECT_EQ(InspectBytes("\x0a\x07\x0a" + no_bytes + answer).code(),
            absl::StatusCode::kInvalidArgument);
}

TEST_F(CallbackGuardTest, AnAnswerThatIsOverwrittenByControlIsControl) {
  rpc::CanAccessFile answer;
  answer.mutable_response();
  rpc::CanAccessFile control;
  control.set_subscribe(true);

  EXPECT_TRUE(InspectBytes(answer.SerializeAsString() + control.SerializeAsString()).ok());
  EXPECT_TRUE(content_.is_subscription);
  EXPECT_TRUE(InspectBytes(control.SerializeAsString() + answer.SerializeAsString()).ok());
  EXPECT_FALSE(content_.is_subscription);
}

TEST_F(CallbackGuardTest, TheLastCallIdOfAnAnswerCounts) {
  const std::string answer("\x22\0\x28\x07", 4);
  for (const std::string& last : {std::string("\x28\x08"), std::string("\x28\x88\x80\0", 4)}) {
    EXPECT_TRUE(InspectBytes(answer + last).ok());
    EXPECT_EQ(content_.call_id, 8);
  }
}

TEST_F(CallbackGuardTest, AnswerWithAnErrorIsAnError) {
  rpc::CanAccessFile answer;
  answer.mutable_response();
  answer.set_error("no such page");

  EXPECT_TRUE(Inspect(answer).ok());
  EXPECT_TRUE(content_.has_error);
}

TEST_F(CallbackGuardTest, ControlPassesWithItsKey) {
  rpc::CanAccessFile control;
  control.mutable_profile_id()->set_value("P");
  control.set_subscribe(true);

  EXPECT_TRUE(Inspect(control).ok());
  EXPECT_EQ(content_.control, Control::kSubscribe);
  EXPECT_EQ(content_.key, control.profile_id().SerializeAsString());
  EXPECT_TRUE(content_.is_subscription);

  control.set_subscribe(false);
  EXPECT_TRUE(Inspect(control).ok());
  EXPECT_EQ(content_.control, Control::kUnsubscribe);
}

TEST_F(CallbackGuardTest, AbsentKeyAndEmptyKeyAreTheSame) {
  rpc::CanAccessFile control;
  control.set_subscribe(true);
  ASSERT_TRUE(Inspect(control).ok());
  const std::string absent = content_.key;
  control.mutable_profile_id();

  ASSERT_TRUE(Inspect(control).ok());
  EXPECT_EQ(content_.key, absent);
}

TEST_F(CallbackGuardTest, EmptyMessageIsRefused) {
  EXPECT_EQ(InspectBytes(""),
            absl::InvalidArgumentError("A client may send `subscribe`, `response` or `error` in a "
                                       "rpc.CanAccessFile, not none of them"));
}

TEST_F(CallbackGuardTest, RequestOfTheHostIsRefusedFromAClient) {
  rpc::CanAccessFile request;
  request.mutable_request()->set_path("/");

  EXPECT_EQ(Inspect(request),
            absl::InvalidArgumentError("A client may send `subscribe`, `response` or `error` in a "
                                       "rpc.CanAccessFile, not `request`"));
}

TEST_F(CallbackGuardTest, BytesThatDoNotParseAreRefused) {
  const absl::Status refusal =
      absl::InvalidArgumentError("A message on the stream is not a serialised rpc.CanAccessFile");

  EXPECT_EQ(InspectBytes("\xff\xff"), refusal);
  // A tag that promises more than comes; a string that is not UTF-8; an answer cut short.
  EXPECT_EQ(InspectBytes("\x22\x7f"), refusal);
  EXPECT_EQ(InspectBytes("\x32\x01\xff"), refusal);
  EXPECT_EQ(InspectBytes("\x10\x01\x22", /*is_error=*/true), refusal);
}

TEST_F(CallbackGuardTest, LastMemberOfTheOneofCounts) {
  rpc::CanAccessFile answer;
  answer.mutable_response();
  rpc::CanAccessFile request;
  request.mutable_request();

  EXPECT_TRUE(InspectBytes(request.SerializeAsString() + answer.SerializeAsString()).ok());
  EXPECT_FALSE(InspectBytes(answer.SerializeAsString() + request.SerializeAsString()).ok());
}

TEST_F(CallbackGuardTest, ErrorMayHaveAnyContent) {
  rpc::CanAccessFile error;
  error.set_error("no such page");
  EXPECT_TRUE(Inspect(error).ok());
  EXPECT_TRUE(content_.has_error);

  EXPECT_TRUE(InspectBytes("", /*is_error=*/true).ok());
  EXPECT_FALSE(content_.is_subscription);
}

TEST(EventGuardTest, EveryMessageCountsAndActionsAreTold) {
  EnvelopeGuard guard(Method("WhenNetworkChanged"), rpc::EventSubscription::default_instance());
  rpc::EventSubscription subscription;
  subscription.mutable_key()->set_value("P");
  for (const auto& [action, control] :
       {std::pair(0, Control::kNone), std::pair(1, Control::kSubscribe),
        std::pair(2, Control::kUnsubscribe), std::pair(3, Control::kNone)}) {
    subscription.set_action(static_cast<rpc::EventSubscription::Action>(action));
    EnvelopeGuard::Content content;

    EXPECT_TRUE(guard.Inspect(subscription.SerializeAsString(), false, content).ok());
    EXPECT_EQ(content.control, control);
    EXPECT_TRUE(content.is_subscription);
  }
}

TEST(EventGuardTest, BytesThatDoNotParseAreRefused) {
  EnvelopeGuard guard(Method("WhenNetworkChanged"), rpc::EventSubscription::default_instance());
  EnvelopeGuard::Content content;

  EXPECT_EQ(guard.Inspect("\x0a\x05", false, content),
            absl::InvalidArgumentError(
                "A message on the stream is not a serialised rpc.EventSubscription"));
}

}  // namespace
}  // namespace varnic
