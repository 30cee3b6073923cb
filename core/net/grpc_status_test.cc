#include "core/net/grpc_status.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nghttp2/nghttp2.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

namespace varnic::net {
namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;

TEST(GrpcStatusTest, CodesAreTheirNumbers) {
  EXPECT_EQ(FormatGrpcStatus(absl::StatusCode::kOk), "0");
  EXPECT_EQ(FormatGrpcStatus(absl::StatusCode::kUnknown), "2");
  EXPECT_EQ(FormatGrpcStatus(absl::StatusCode::kUnimplemented), "12");
  EXPECT_EQ(FormatGrpcStatus(absl::StatusCode::kUnauthenticated), "16");
}

TEST(GrpcStatusTest, EveryCodeSurvivesTheRoundTrip) {
  for (int number = 0; number <= 16; ++number) {
    const auto code = static_cast<absl::StatusCode>(number);

    EXPECT_EQ(FormatGrpcStatus(code), std::to_string(number));
    EXPECT_EQ(ParseGrpcStatus(FormatGrpcStatus(code)), code);
  }
}

TEST(GrpcStatusTest, ANumberThatIsNoCodeIsWrittenAsUnknown) {
  EXPECT_EQ(FormatGrpcStatus(static_cast<absl::StatusCode>(17)), "2");
  EXPECT_EQ(FormatGrpcStatus(static_cast<absl::StatusCode>(-1)), "2");
}

TEST(GrpcStatusTest, OnlyTheSeventeenNumbersAreParsed) {
  for (const std::string_view text :
       {"", "17", "99", "-1", "+1", " 1", "1 ", "00", "01", "0x1", "1.0", "OK", "4294967296"}) {
    EXPECT_EQ(ParseGrpcStatus(text), std::nullopt) << '"' << text << '"';
  }
}

TEST(StatusFromTrailersTest, TheMessageIsDecoded) {
  EXPECT_EQ(StatusFromTrailers("5", "no%20profile%0A100%25"),
            absl::NotFoundError("no profile\n100%"));
  EXPECT_EQ(StatusFromTrailers("13", ""), absl::InternalError(""));
}

TEST(StatusFromTrailersTest, ZeroIsOkWhateverTheMessage) {
  EXPECT_EQ(StatusFromTrailers("0", ""), absl::OkStatus());
  EXPECT_EQ(StatusFromTrailers("0", "fine"), absl::OkStatus());
}

TEST(StatusFromTrailersTest, ABadNumberIsUnknownAndNamed) {
  for (const std::string_view text : {"", "17", "-1", "abc", "00"}) {
    const absl::Status status = StatusFromTrailers(text, "disk%20full");

    EXPECT_EQ(status.code(), absl::StatusCode::kUnknown);
    EXPECT_THAT(std::string(status.message()), HasSubstr("grpc-status \"" + std::string(text)));
    EXPECT_THAT(std::string(status.message()), EndsWith("code: disk full"));
  }
}

TEST(StatusFromTrailersTest, ABadNumberIsQuotedEscapedAndShort) {
  const std::string garbage = "\n\xFF" + std::string(8000, 'x');

  const absl::Status status = StatusFromTrailers(garbage, "");

  EXPECT_THAT(std::string(status.message()), HasSubstr("\"\\n\\xffxxx"));
  EXPECT_THAT(std::string(status.message()), EndsWith("code"));
  EXPECT_LT(status.message().size(), 120u);
}

TEST(StatusFromHttpTest, TheTableIsGrpcs) {
  const std::vector<std::tuple<int, absl::StatusCode>> table = {
      {400, absl::StatusCode::kInternal},
      {401, absl::StatusCode::kUnauthenticated},
      {403, absl::StatusCode::kPermissionDenied},
      {404, absl::StatusCode::kUnimplemented},
      {429, absl::StatusCode::kUnavailable},
      {502, absl::StatusCode::kUnavailable},
      {503, absl::StatusCode::kUnavailable},
      {504, absl::StatusCode::kUnavailable},
      {200, absl::StatusCode::kUnknown},
      {302, absl::StatusCode::kUnknown},
      {415, absl::StatusCode::kUnknown},
      {500, absl::StatusCode::kUnknown},
      {0, absl::StatusCode::kUnknown},
      {-1, absl::StatusCode::kUnknown},
  };

  for (const auto& [http_status, code] : table) {
    EXPECT_EQ(StatusFromHttp(http_status), code) << http_status;
  }
}

TEST(StatusFromRstStreamTest, TheTableIsGrpcs) {
  const std::vector<std::tuple<uint32_t, absl::StatusCode>> table = {
      {NGHTTP2_NO_ERROR, absl::StatusCode::kInternal},
      {NGHTTP2_PROTOCOL_ERROR, absl::StatusCode::kInternal},
      {NGHTTP2_INTERNAL_ERROR, absl::StatusCode::kInternal},
      {NGHTTP2_FLOW_CONTROL_ERROR, absl::StatusCode::kInternal},
      {NGHTTP2_SETTINGS_TIMEOUT, absl::StatusCode::kInternal},
      {NGHTTP2_FRAME_SIZE_ERROR, absl::StatusCode::kInternal},
      {NGHTTP2_REFUSED_STREAM, absl::StatusCode::kUnavailable},
      {NGHTTP2_CANCEL, absl::StatusCode::kCancelled},
      {NGHTTP2_COMPRESSION_ERROR, absl::StatusCode::kInternal},
      {NGHTTP2_CONNECT_ERROR, absl::StatusCode::kInternal},
      {NGHTTP2_ENHANCE_YOUR_CALM, absl::StatusCode::kResourceExhausted},
      {NGHTTP2_INADEQUATE_SECURITY, absl::StatusCode::kPermissionDenied},
  };

  for (const auto& [error, code] : table) EXPECT_EQ(StatusFromRstStream(error), code) << error;
}

TEST(StatusFromRstStreamTest, CodesOutsideTheTableAreInternal) {
  for (const uint32_t error : {uint32_t{NGHTTP2_STREAM_CLOSED}, uint32_t{NGHTTP2_HTTP_1_1_REQUIRED},
                               uint32_t{0xE}, uint32_t{0xFFFFFFFF}}) {
    EXPECT_EQ(StatusFromRstStream(error), absl::StatusCode::kInternal) << error;
  }
}

}  // namespace
}  // namespace varnic::net
