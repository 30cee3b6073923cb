#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "base/logging.h"
#include "core/common/rpc/allocation_count_test_support.h"
#include "core/common/rpc/message_registry.h"
#include "core/common/rpc/stream/profile_streams_test_support.h"

namespace varnic {
namespace {

using google::protobuf::Message;
using testing::AllocationCount;
using testing::Envelope;
using testing::FileAccessStream;
using testing::Profile;
using testing::ServedStream;

class CallbackStreamAllocationTest : public testing::ProfileStreamsTest {
 protected:
  CallbackStreamAllocationTest() {  // Leaves both tables' bucket arrays.
    stream_->Subscribe(Profile("warm up"));
    AddCall();
    auto unsubscribe = Control("warm up", false);
    stream_->OnNext(&unsubscribe);
    stream_->CancelPendingRequests(key_);
  }

  static rpc::transport::StreamMessage Control(const std::string& profile, bool subscribe) {
    rpc::CanAccessFile control;
    *control.mutable_profile_id() = Profile(profile);
    control.set_subscribe(subscribe);
    return Envelope(control.SerializeAsString());
  }
  static rpc::transport::StreamMessage Answer(const std::string& profile, int call_id) {
    rpc::CanAccessFile answer;
    *answer.mutable_profile_id() = Profile(profile);
    answer.mutable_response()->set_allow(true);
    return Envelope(answer.SerializeAsString(), call_id);
  }

  // Call 1 under `key_`, with callables that need memory.
  void AddCall() {
    const std::string large(100, 'x');
    stream_->pending_calls_.try_emplace(CloneKey(key_))
        .first->second.emplace(1, FileAccessStream::StreamCall{
                                      [large](const rpc::CanAccessFile&) {}, [large](int) {}});
  }

  const ProfileId key_ = Profile("work");
  ServedStream<FileAccessStream> stream_{service_};
};

TEST_F(CallbackStreamAllocationTest, ASubscriptionAndItsEndLeaveNothing) {
  auto subscribe = Control("a profile with a name that is too long to be stored inline", true);
  auto unsubscribe = Control("a profile with a name that is too long to be stored inline", false);
  const AllocationCount count;

  stream_->OnNext(&subscribe);
  EXPECT_GT(count.live(), 0);
  stream_->OnNext(&unsubscribe);

  EXPECT_EQ(count.live(), 0);
}

TEST_F(CallbackStreamAllocationTest, ARepeatedSubscriptionCopiesNothing) {
  stream_->Subscribe(key_);
  const AllocationCount count;

  stream_->Subscribe(key_);

  EXPECT_EQ(count.made(), 0);
}

TEST_F(CallbackStreamAllocationTest, TakingAKeyOverCopiesNoKey) {
  ServedStream<FileAccessStream> other(service_);
  other->Subscribe(key_);
  logging::SetMinLogLevel(logging::LOGGING_ERROR);
  const AllocationCount count;

  stream_->Subscribe(key_);

  EXPECT_EQ(count.made(), 0);
  logging::SetMinLogLevel(logging::LOGGING_INFO);
}

TEST_F(CallbackStreamAllocationTest, EveryMessageIsFreedWhateverItSays) {
  auto again = Control("work", true);
  stream_->OnNext(&again);
  auto unknown_key = Control("unknown", false);
  auto answer_without_call = Answer("work", 99);
  auto error_without_payload = Envelope("\xff garbage", 99);
  const AllocationCount count;

  stream_->OnNext(&again);
  stream_->OnNext(&unknown_key);
  stream_->OnNext(&answer_without_call);
  stream_->OnError(&error_without_payload);

  EXPECT_GE(count.made(), 4);
  EXPECT_EQ(count.live(), 0);
}

TEST_F(CallbackStreamAllocationTest, AnAnsweredCallLeavesNothing) {
  auto answer = Answer("work", 1);
  const AllocationCount count;
  AddCall();

  stream_->OnNext(&answer);

  EXPECT_EQ(count.live(), 0);
}

TEST_F(CallbackStreamAllocationTest, AFailedCallLeavesNothing) {
  auto error = Answer("work", 1);
  const AllocationCount count;
  AddCall();

  stream_->OnError(&error);

  EXPECT_EQ(count.live(), 0);
}

TEST_F(CallbackStreamAllocationTest, ACancelledCallLeavesNothing) {
  const AllocationCount count;
  AddCall();

  stream_->CancelPendingRequests(key_);

  EXPECT_EQ(count.live(), 0);
}

TEST_F(CallbackStreamAllocationTest, CompletionLeavesNothing) {
  const AllocationCount count;
  AddCall();
  stream_->Subscribe(key_);

  stream_->OnCompleted();

  EXPECT_EQ(count.live(), 0);
}

TEST_F(CallbackStreamAllocationTest, DestructionWithACallLeftLeaksItsKeyAndNothingElse) {
  const ProfileId empty;
  const AllocationCount count;
  auto stream = std::make_unique<FileAccessStream>(&service_, testing::ProfileMethod(10),
                                                   StreamChannel(nullptr));
  const Message* key = CloneKey(empty);
  stream->pending_calls_.try_emplace(key).first->second.emplace(1, FileAccessStream::StreamCall());

  stream.reset();

  EXPECT_EQ(count.live(), 1);
  delete key;
  EXPECT_EQ(count.live(), 0);
}

}  // namespace
}  // namespace varnic
