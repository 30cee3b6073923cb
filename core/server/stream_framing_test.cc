#include "core/server/stream_framing.h"

#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "core/common/rpc/stream_kind.h"
#include "core/net/message_framing.h"
#include "rpc/profile/profile.pb.h"

namespace varnic {
namespace {

using ::rpc::transport::StreamMessage;

// The one gRPC message in `framed`.
std::string Unframe(const std::string& framed) {
  std::string only;
  int messages = 0;
  net::MessageReader reader(1 << 20);
  const absl::Status status =
      reader.Read(framed, [&](std::string_view message, bool /*compressed*/) {
        only = std::string(message);
        ++messages;
        return absl::OkStatus();
      });
  EXPECT_TRUE(status.ok()) << status;
  EXPECT_EQ(messages, 1);
  return only;
}

StreamMessage Question() {
  rpc::CanAccessFile question;
  question.mutable_request()->set_path("/etc/motd");
  question.set_call_id(1);
  StreamMessage envelope;
  envelope.set_payload(question.SerializeAsString());
  envelope.set_call_id(77);
  return envelope;
}

TEST(StreamFramingTest, TypedMessageCarriesTheCallIdOfItsEnvelope) {
  const int field = CallIdField(*rpc::CanAccessFile::descriptor());

  const std::string framed = FrameEnvelope(StreamFraming::kTyped, Question(), field);

  rpc::CanAccessFile question;
  ASSERT_TRUE(question.ParseFromString(Unframe(framed)));
  EXPECT_EQ(question.call_id(), 77);
  EXPECT_EQ(question.request().path(), "/etc/motd");
}

TEST(StreamFramingTest, TypedMessageOfATypeWithoutCallIdIsThePayload) {
  rpc::NetworkChanged event;
  event.set_online(true);
  StreamMessage envelope;
  envelope.set_payload(event.SerializeAsString());
  envelope.set_call_id(77);
  ASSERT_EQ(CallIdField(*rpc::NetworkChanged::descriptor()), 0);

  EXPECT_EQ(Unframe(FrameEnvelope(StreamFraming::kTyped, envelope, 0)), envelope.payload());
}

TEST(StreamFramingTest, EnvelopeGoesOutAsItIs) {
  StreamMessage envelope;
  ASSERT_TRUE(
      envelope.ParseFromString(Unframe(FrameEnvelope(StreamFraming::kEnvelope, Question(), 5))));

  EXPECT_EQ(envelope.call_id(), 77);
  EXPECT_EQ(envelope.payload(), Question().payload());
}

TEST(StreamFramingTest, PrefixAndPayloadOfAnEventMakeOneMessage) {
  for (const std::size_t size : {0, 1, 127, 128, 20000}) {
    const std::string payload(size, 'p');

    EXPECT_EQ(Unframe(FrameEventPrefix(StreamFraming::kTyped, size) + payload), payload);
    StreamMessage envelope;
    ASSERT_TRUE(envelope.ParseFromString(
        Unframe(FrameEventPrefix(StreamFraming::kEnvelope, size) + payload)));
    EXPECT_EQ(envelope.payload(), payload);
    EXPECT_EQ(envelope.call_id(), 0);
  }
}

TEST(StreamFramingTest, ASmallMessageIsFramedInPlaceAsElsewhere) {
  const int field = CallIdField(*rpc::CanAccessFile::descriptor());
  for (const StreamFraming framing : {StreamFraming::kTyped, StreamFraming::kEnvelope}) {
    const std::string framed = FrameEnvelope(framing, Question(), field);
    std::string exact(framed.size(), 'x');
    std::string too_small(framed.size() - 1, 'x');

    EXPECT_EQ(FrameEnvelopeIn(absl::MakeSpan(exact), framing, Question(), field), framed);
    EXPECT_TRUE(FrameEnvelopeIn(absl::MakeSpan(too_small), framing, Question(), field).empty());
  }
}

TEST(StreamFramingTest, ASmallTypedEventIsFramedInPlace) {
  const std::string payload = "an event";
  std::string buffer(100, 'x');
  std::string too_small(payload.size(), 'x');

  EXPECT_EQ(FrameEventIn(absl::MakeSpan(buffer), StreamFraming::kTyped, payload),
            FrameEventPrefix(StreamFraming::kTyped, payload.size()) + payload);
  EXPECT_TRUE(FrameEventIn(absl::MakeSpan(too_small), StreamFraming::kTyped, payload).empty());
  EXPECT_TRUE(FrameEventIn(absl::MakeSpan(buffer), StreamFraming::kEnvelope, payload).empty());
}

}  // namespace
}  // namespace varnic
