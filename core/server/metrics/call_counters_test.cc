#include "core/server/metrics/call_counters.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "rpc/profile/profile.rpc.h"

namespace varnic {
namespace {

constexpr char kPath[] = "/rpc.Profile/Path";
constexpr char kStream[] = "/rpc.Profile/WhenNetworkChanged";

std::uint64_t Count(const CallEnds& ends, absl::StatusCode code) {
  return ends.by_code()[static_cast<std::size_t>(code)];
}

class CallCountersTest : public ::testing::Test {
 protected:
  CallCountersTest() { counters_.Add(*rpc::ProfileRpc::descriptor()); }

  const MethodCounters& Of(const std::string& label) {
    for (const auto& method : counters_.methods()) {
      if (method->label == label) return *method;
    }
    ADD_FAILURE() << "nothing is counted of " << label;
    return *counters_.methods().front();
  }

  const DurationHistogram* Durations(const std::string& label, absl::StatusCode code) {
    return Of(label).calls.durations(static_cast<std::size_t>(code));
  }

  CallCounters counters_;
};

TEST(DurationHistogramTest, DurationGoesIntoTheFirstBucketWhoseBoundItDoesNotPass) {
  DurationHistogram histogram;

  histogram.Add(absl::ZeroDuration());
  histogram.Add(absl::Microseconds(100));
  histogram.Add(absl::Microseconds(101));
  histogram.Add(absl::Seconds(30));
  histogram.Add(absl::Seconds(31));

  EXPECT_EQ(histogram.buckets().front(), 2u);
  EXPECT_EQ(histogram.buckets()[1], 1u);
  EXPECT_EQ(histogram.buckets()[DurationHistogram::kBounds.size() - 1], 1u);
  EXPECT_EQ(histogram.buckets().back(), 1u);
  EXPECT_NEAR(histogram.sum_seconds(), 61.000201, 1e-9);
}

TEST_F(CallCountersTest, EndsAreCountedByMethodAndCode) {
  counters_.Of(kPath).calls.OnCallEnded(absl::StatusCode::kOk, absl::Seconds(1));
  counters_.Of(kPath).calls.OnCallEnded(absl::StatusCode::kOk, absl::Seconds(2));
  counters_.Of(kPath).calls.OnCallEnded(absl::StatusCode::kNotFound, absl::Seconds(3));

  EXPECT_EQ(Count(Of(kPath).calls, absl::StatusCode::kOk), 2u);
  EXPECT_EQ(Count(Of(kPath).calls, absl::StatusCode::kNotFound), 1u);
  EXPECT_EQ(Of(kPath).calls.total(), 3u);
  EXPECT_EQ(Of("/rpc.Profile/Name").calls.total(), 0u);
}

TEST_F(CallCountersTest, DurationsAreToldApartByCode) {
  counters_.Of(kPath).calls.OnCallEnded(absl::StatusCode::kOk, absl::Seconds(1));
  const DurationHistogram* first = Durations(kPath, absl::StatusCode::kOk);
  counters_.Of(kPath).calls.OnCallEnded(absl::StatusCode::kOk, absl::Seconds(2));
  counters_.Of(kPath).calls.OnCallEnded(absl::StatusCode::kNotFound, absl::Seconds(4));

  ASSERT_NE(first, nullptr);
  EXPECT_EQ(Durations(kPath, absl::StatusCode::kOk), first);
  EXPECT_EQ(first->sum_seconds(), 3);
  ASSERT_NE(Durations(kPath, absl::StatusCode::kNotFound), nullptr);
  EXPECT_EQ(Durations(kPath, absl::StatusCode::kNotFound)->sum_seconds(), 4);
  EXPECT_EQ(Durations(kPath, absl::StatusCode::kCancelled), nullptr);
  EXPECT_EQ(Durations("/rpc.Profile/Name", absl::StatusCode::kOk), nullptr);
}

TEST_F(CallCountersTest, WhateverIsNoMethodIsCountedAsOne) {
  const std::size_t methods = counters_.methods().size();

  for (const char* path : {"", "/", "/rpc.Profile/Other", "/other.Service/Path", "unknown"}) {
    counters_.Of(path).calls.OnCallEnded(absl::StatusCode::kUnimplemented, absl::ZeroDuration());
  }
  counters_.ForUnknown().OnCallEnded(absl::StatusCode::kInternal, absl::ZeroDuration());

  EXPECT_EQ(counters_.methods().size(), methods);
  EXPECT_EQ(Count(Of("unknown").calls, absl::StatusCode::kUnimplemented), 5u);
  EXPECT_EQ(Count(Of("unknown").calls, absl::StatusCode::kInternal), 1u);
}

TEST_F(CallCountersTest, StreamIsOpenUntilItsEnd) {
  CallEnds& ends = counters_.Of(kStream).OpenStream();
  counters_.Of(kStream).OpenStream();

  EXPECT_EQ(Of(kStream).streams_open(), 2u);
  ends.OnCallEnded(absl::StatusCode::kCancelled, absl::Hours(1));

  EXPECT_EQ(Of(kStream).streams_opened, 2u);
  EXPECT_EQ(Of(kStream).streams_open(), 1u);
  EXPECT_EQ(Count(Of(kStream).streams, absl::StatusCode::kCancelled), 1u);
  EXPECT_EQ(Of(kStream).calls.total(), 0u);
}

TEST_F(CallCountersTest, NumberThatIsNoCodeCountsAsUnknown) {
  counters_.Of(kPath).calls.OnCallEnded(static_cast<absl::StatusCode>(17), absl::ZeroDuration());
  counters_.Of(kPath).calls.OnCallEnded(static_cast<absl::StatusCode>(-1), absl::ZeroDuration());

  EXPECT_EQ(Count(Of(kPath).calls, absl::StatusCode::kUnknown), 2u);
}

TEST_F(CallCountersTest, StreamsAreToldFromUnaryMethods) {
  EXPECT_TRUE(Of(kStream).is_stream);
  EXPECT_FALSE(Of(kPath).is_stream);
}

}  // namespace
}  // namespace varnic
