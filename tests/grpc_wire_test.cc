// What the server answers to requests that no generated stub would send.

#include <gtest/gtest.h>

#include <string>

#include "core/net/frame_message.h"
#include "tests/http2_peer.h"
#include "tests/served_host.h"

namespace varnic {
namespace {

using Answer = Http2Peer::Answer;

class GrpcWireTest : public ::testing::TestWithParam<const char*> {
 protected:
  static std::string Request(const std::string& id = "one") {
    ProfileId request;
    request.set_value(id);
    return net::FrameMessage(request);
  }

  Answer Call(const std::string& path, const std::string& body) {
    return peer_.Exchange(Http2Peer::GrpcHeaders(path), body);
  }

  // The exchange, with one header field set otherwise.
  Answer CallWith(net::HeaderField field, const std::string& body = Request()) {
    Http2Peer::Headers headers = Http2Peer::GrpcHeaders("/rpc.Profile/Path");
    bool replaced = false;
    for (net::HeaderField& header : headers) {
      if (header.name != field.name) continue;
      header = field;
      replaced = true;
    }
    if (!replaced) headers.push_back(field);
    return peer_.Exchange(headers, body);
  }

  static void ExpectStatus(const Answer& answer, const char* code, const std::string& text) {
    EXPECT_EQ(answer.Header(":status"), "200");
    EXPECT_EQ(answer.Header("content-type"), "application/grpc");
    EXPECT_EQ(answer.Header("grpc-status"), code);
    EXPECT_EQ(answer.Header("grpc-message"), text);
  }

  ServedHost served_{GetParam()};
  Http2Peer peer_{served_.address()};
};

INSTANTIATE_TEST_SUITE_P(Sockets, GrpcWireTest, ::testing::Values("unix", "127.0.0.1:0"),
                         [](const auto& socket) {
                           return std::string(socket.param) == "unix" ? "Unix" : "Tcp";
                         });

TEST_P(GrpcWireTest, GoodCallGetsItsMessageAndStatusZero) {
  const Answer answer = Call("/rpc.Profile/Path", Request());

  google::protobuf::StringValue path;
  path.set_value("/profiles/one");
  ExpectStatus(answer, "0", "");
  EXPECT_EQ(answer.data, net::FrameMessage(path));
  EXPECT_EQ(answer.error, net::Http2Error::kNoError);
}

TEST_P(GrpcWireTest, UnknownServiceIsUnimplementedByName) {
  ExpectStatus(Call("/rpc.Nobody/Path", Request()), "12", "Unknown service rpc.Nobody");
}

TEST_P(GrpcWireTest, UnknownMethodIsUnimplementedByName) {
  ExpectStatus(Call("/rpc.Profile/path", Request()), "12",
               "Unknown method path of service rpc.Profile");
}

TEST_P(GrpcWireTest, PathThatNamesNoMethodIsUnimplemented) {
  ExpectStatus(Call("/", Request()), "12", "Malformed method name \"/\"");
  ExpectStatus(Call("/rpc.Profile", Request()), "12", "Malformed method name \"/rpc.Profile\"");
  ExpectStatus(Call("/rpc.Profile/", Request()), "12", "Unknown method  of service rpc.Profile");
}

TEST_P(GrpcWireTest, HugePathWithBytesThatAreEscapedIsAnswered) {
  const Answer answer = Call("/" + std::string(15'000, '%') + "/Path", Request());

  EXPECT_EQ(answer.Header("grpc-status"), "12");
  EXPECT_EQ(answer.Header("grpc-message").substr(0, 25), "Unknown service %25%25%25");
}

TEST_P(GrpcWireTest, HeadersThatAreTooLargeResetTheCallAlone) {
  Http2Peer::Headers headers = Http2Peer::GrpcHeaders("/rpc.Profile/Path");
  const std::string value(80, 'x');
  for (int i = 0; i < 600; ++i) headers.push_back({"x-large", value});

  const Answer refused = peer_.Exchange(headers, Request());

  EXPECT_EQ(refused.error, net::Http2Error::kEnhanceYourCalm);
  ExpectStatus(Call("/rpc.Profile/Path", Request()), "0", "");
}

TEST_P(GrpcWireTest, RequestThatDoesNotParseIsInternalWithItsType) {
  ExpectStatus(Call("/rpc.Profile/Path", Framed("\xff\xff\xff")), "13",
               "The request is not a serialised ProfileId");
}

TEST_P(GrpcWireTest, OverlongMessageIsRefusedBeforeItArrives) {
  const std::string announced = Framed(std::string(100, 'x')).replace(1, 4, "\x7f\xff\xff\xff");

  ExpectStatus(Call("/rpc.Profile/Path", announced), "8",
               "received message is larger than allowed (2147483647 vs. 4194304 bytes)");
}

TEST_P(GrpcWireTest, TruncatedMessageIsInternal) {
  ExpectStatus(Call("/rpc.Profile/Path", Framed("twelve bytes").substr(0, 10)), "13",
               "the stream ended in the middle of a message: 5 of 12 bytes arrived");
}

TEST_P(GrpcWireTest, CompressedMessageIsUnimplemented) {
  const Answer answer = CallWith({"grpc-encoding", "gzip"}, Request().replace(0, 1, "\1"));

  EXPECT_EQ(answer.Header("grpc-status"), "12");
  EXPECT_EQ(answer.Header("grpc-accept-encoding"), "identity");
}

TEST_P(GrpcWireTest, UnaryCallWithoutMessageIsUnimplemented) {
  ExpectStatus(Call("/rpc.Profile/Path", ""), "12",
               "No request message for the unary method rpc.Profile.Path");
}

TEST_P(GrpcWireTest, UnaryCallWithTwoMessagesIsUnimplemented) {
  ExpectStatus(Call("/rpc.Profile/Path", Request() + Request()), "12",
               "More than one request message for the unary method rpc.Profile.Path");
}

// On the wire such a call is a stream with one message, which the client ends at once.
TEST_P(GrpcWireTest, StreamingMethodCalledLikeAUnaryOneIsAShortStream) {
  ExpectStatus(Call("/rpc.Profile/WhenNetworkChanged", Framed("")), "0", "");
  for (const char* method : {"CanAccessFile", "Authenticate"}) {
    ExpectStatus(Call(std::string("/rpc.Profile/On") + method, Framed("")), "3",
                 std::string("A client may send `subscribe`, `response` or `error` in a rpc.") +
                     method + ", not none of them");
  }

  EXPECT_EQ(FreshCall(served_.address()), absl::OkStatus());
}

TEST_P(GrpcWireTest, WrongContentTypeIsHttp415) {
  const Answer answer = CallWith({"content-type", "application/json"});

  EXPECT_EQ(answer.Header(":status"), "415");
  EXPECT_EQ(answer.headers.count("grpc-status"), 0u);
}

TEST_P(GrpcWireTest, GetIsHttp405) {
  EXPECT_EQ(CallWith({":method", "GET"}).Header(":status"), "405");
}

TEST_P(GrpcWireTest, MalformedTimeoutIsInternal) {
  ExpectStatus(CallWith({"grpc-timeout", "soon"}), "13", "Malformed grpc-timeout: soon");
}

TEST_P(GrpcWireTest, LongestTimeoutThereIsMeansNoHarm) {
  ExpectStatus(CallWith({"grpc-timeout", "99999999H"}), "0", "");
}

TEST_P(GrpcWireTest, TimeoutEndsACallThatIsNotAnswered) {
  const Answer answer = CallWith({"grpc-timeout", "10m"}, Request("kept"));

  ExpectStatus(answer, "4", "Deadline exceeded");
  EXPECT_TRUE(served_.host().WaitForCancelled(1));
}

TEST_P(GrpcWireTest, TimeoutOfZeroIsOver) {
  ExpectStatus(CallWith({"grpc-timeout", "0n"}, Request("kept")), "4", "Deadline exceeded");
}

TEST_P(GrpcWireTest, OverrideReadsMetadataAndAnswersWithItsOwn) {
  Http2Peer::Headers headers = Http2Peer::GrpcHeaders("/rpc.Profile/Path");
  headers.push_back({"x-ask", "a, b"});
  headers.push_back({"x-ask-bin", "AP8="});

  const Answer answer = peer_.Exchange(headers, Request("metadata"));

  ExpectStatus(answer, "0", "");
  EXPECT_EQ(answer.Header("x-initial"), "a, b");
  EXPECT_EQ(answer.Header("x-trailing-bin"), "AP8");
}

TEST_P(GrpcWireTest, FailedCallHasItsMetadataAndATextThatLeavesRoomForIt) {
  const std::string long_value(3000, 'A');
  Http2Peer::Headers headers = Http2Peer::GrpcHeaders("/rpc.Profile/Path");
  headers.push_back({"x-ask-bin", long_value});

  const Answer answer = peer_.Exchange(headers, Request("failed metadata"));

  EXPECT_EQ(answer.Header("grpc-status"), "13");
  EXPECT_EQ(answer.Header("x-trailing-bin"), long_value);
  EXPECT_GT(answer.Header("grpc-message").size(), 2000u);
  EXPECT_LT(answer.Header("grpc-message").size() + long_value.size(), 6144u);
}

TEST_P(GrpcWireTest, FailedCallsLeaveTheConnectionUsable) {
  for (int i = 0; i < 3000; ++i) {
    ASSERT_EQ(Call("/rpc.Profile/Path", Framed("\xff")).Header("grpc-status"), "13");
  }

  ExpectStatus(Call("/rpc.Profile/Path", Request()), "0", "");
}

}  // namespace
}  // namespace varnic
