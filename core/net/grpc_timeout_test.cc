#include "core/net/grpc_timeout.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <string_view>

#include "absl/time/time.h"

namespace varnic::net {
namespace {

TEST(GrpcTimeoutTest, EveryUnitIsParsed) {
  EXPECT_EQ(ParseGrpcTimeout("2H"), absl::Hours(2));
  EXPECT_EQ(ParseGrpcTimeout("3M"), absl::Minutes(3));
  EXPECT_EQ(ParseGrpcTimeout("4S"), absl::Seconds(4));
  EXPECT_EQ(ParseGrpcTimeout("5m"), absl::Milliseconds(5));
  EXPECT_EQ(ParseGrpcTimeout("6u"), absl::Microseconds(6));
  EXPECT_EQ(ParseGrpcTimeout("7n"), absl::Nanoseconds(7));
}

TEST(GrpcTimeoutTest, OneToEightDigitsAreParsed) {
  EXPECT_EQ(ParseGrpcTimeout("0n"), absl::ZeroDuration());
  EXPECT_EQ(ParseGrpcTimeout("00000010S"), absl::Seconds(10));
  EXPECT_EQ(ParseGrpcTimeout("99999999H"), absl::Hours(99'999'999));
}

TEST(GrpcTimeoutTest, AnythingElseIsNoTimeout) {
  for (const std::string_view text :
       {"", "S", "1", "15", "1s", "1h", "1X", "-1S", "+1S", " 1S", "1 S", "1S ", "1.5S", "0x1S",
        "123456789S", "000000001n", "1SS", "SS", "99999999999999999999999H"}) {
    EXPECT_EQ(ParseGrpcTimeout(text), std::nullopt) << '"' << text << '"';
  }
}

TEST(GrpcTimeoutTest, EmbeddedNulIsNoTimeout) {
  EXPECT_EQ(ParseGrpcTimeout(std::string_view("1\0S", 3)), std::nullopt);
  EXPECT_EQ(ParseGrpcTimeout(std::string_view("1S\0", 3)), std::nullopt);
}

TEST(GrpcTimeoutTest, TheFinestUnitThatFitsIsWritten) {
  EXPECT_EQ(FormatGrpcTimeout(absl::Nanoseconds(1)), "1n");
  EXPECT_EQ(FormatGrpcTimeout(absl::Nanoseconds(99'999'999)), "99999999n");
  EXPECT_EQ(FormatGrpcTimeout(absl::Seconds(1)), "1000000u");
  EXPECT_EQ(FormatGrpcTimeout(absl::Minutes(2)), "120000m");
  EXPECT_EQ(FormatGrpcTimeout(absl::Hours(48)), "172800S");
  EXPECT_EQ(FormatGrpcTimeout(absl::Seconds(100'000'020)), "1666667M");
  EXPECT_EQ(FormatGrpcTimeout(absl::Hours(2'000'000)), "2000000H");
}

TEST(GrpcTimeoutTest, WhatDoesNotFitTheUnitIsRoundedUp) {
  EXPECT_EQ(FormatGrpcTimeout(absl::Nanoseconds(1) / 4), "1n");
  EXPECT_EQ(FormatGrpcTimeout(absl::Nanoseconds(100'000'000)), "100000u");
  EXPECT_EQ(FormatGrpcTimeout(absl::Nanoseconds(100'000'001)), "100001u");
  EXPECT_EQ(FormatGrpcTimeout(absl::Nanoseconds(99'999'999) + absl::Nanoseconds(1) / 4), "100000u");
  EXPECT_EQ(FormatGrpcTimeout(absl::Hours(2'000'000) + absl::Nanoseconds(1)), "2000001H");
}

TEST(GrpcTimeoutTest, AnExpiredTimeoutIsOneNanosecond) {
  EXPECT_EQ(FormatGrpcTimeout(absl::ZeroDuration()), "1n");
  EXPECT_EQ(FormatGrpcTimeout(-absl::Seconds(5)), "1n");
  EXPECT_EQ(FormatGrpcTimeout(-absl::InfiniteDuration()), "1n");
}

TEST(GrpcTimeoutTest, TheLongestTimeoutsBecomeTheLargestValue) {
  EXPECT_EQ(FormatGrpcTimeout(absl::Hours(99'999'999)), "99999999H");
  EXPECT_EQ(FormatGrpcTimeout(absl::Hours(99'999'999) + absl::Nanoseconds(1)), "99999999H");
  EXPECT_EQ(FormatGrpcTimeout(absl::InfiniteDuration()), "99999999H");
}

TEST(GrpcTimeoutTest, AWrittenTimeoutIsNeverShorterThanTheDuration) {
  for (absl::Duration timeout = absl::Nanoseconds(1); timeout < absl::Hours(99'999'999);
       timeout = timeout * 7 + absl::Nanoseconds(3)) {
    const std::string text = FormatGrpcTimeout(timeout);

    const std::optional<absl::Duration> parsed = ParseGrpcTimeout(text);
    ASSERT_TRUE(parsed.has_value()) << text;
    EXPECT_GE(*parsed, timeout) << text;
    EXPECT_LE(*parsed, timeout * 1.001) << text;
  }
}

}  // namespace
}  // namespace varnic::net
