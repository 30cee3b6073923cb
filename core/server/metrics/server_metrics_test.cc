#include "core/server/metrics/server_metrics.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "absl/strings/str_split.h"
#include "core/net/edge/edge_counters.h"
#include "rpc/profile/profile.rpc.h"

namespace varnic {
namespace {

using ::testing::Contains;
using ::testing::Not;
using ::testing::StartsWith;

class ServerMetricsTest : public ::testing::Test {
 protected:
  ServerMetricsTest() { server_.AddService(profile_); }

  std::vector<std::string> Lines() const { return absl::StrSplit(metrics_.Text(), '\n'); }

  rpc::ProfileRpc profile_;
  RpcServer server_;
  ServerMetrics metrics_{server_};
};

TEST_F(ServerMetricsTest, EveryMethodIsThereFromTheStart) {
  const std::vector<std::string> lines = Lines();

  EXPECT_THAT(lines, Contains("varnic_calls_total{method=\"/rpc.Profile/Path\",code=\"OK\"} 0"));
  EXPECT_THAT(lines, Contains("varnic_calls_total{method=\"unknown\",code=\"OK\"} 0"));
  EXPECT_THAT(lines, Contains("varnic_streams_open{method=\"/rpc.Profile/WhenNetworkChanged\"} 0"));
  EXPECT_THAT(lines, Contains("# TYPE varnic_call_duration_seconds histogram"));
}

TEST_F(ServerMetricsTest, DurationsAreThereOnceThereIsACall) {
  EXPECT_THAT(Lines(), Not(Contains(StartsWith("varnic_call_duration_seconds_"))));
}

TEST_F(ServerMetricsTest, UnaryMethodsAreNoStreams) {
  const std::vector<std::string> lines = Lines();

  EXPECT_THAT(lines, Contains("varnic_streams_open{method=\"/rpc.Profile/OnAuthenticate\"} 0"));
  EXPECT_THAT(lines, Not(Contains(StartsWith("varnic_streams_open{method=\"/rpc.Profile/Path"))));
}

TEST_F(ServerMetricsTest, MetricIsIntroducedByItsHelpAndType) {
  const std::string text = metrics_.Text();

  EXPECT_THAT(text, ::testing::HasSubstr(
                        "# HELP varnic_connections_open Connections that are open.\n"
                        "# TYPE varnic_connections_open gauge\nvarnic_connections_open 0\n"));
}

TEST_F(ServerMetricsTest, EveryRuleOfTheEdgeHasItsCounter) {
  const std::vector<std::string> lines = Lines();

  for (std::size_t i = 0; i < net::kEdgeRules; ++i) {
    const std::string rule(net::RuleName(static_cast<net::EdgeRule>(i)));
    EXPECT_THAT(lines, Contains("varnic_connections_ended_total{rule=\"" + rule + "\"} 0"));
  }
}

TEST_F(ServerMetricsTest, HostsOwnMetricsAreReadForEveryText) {
  double questions = 1.5;
  metrics_.AddGauge("my_host_questions", "Open questions.", [&] { return questions; });
  metrics_.AddCounter("my_host_answers_total", "Answers.", [] { return 1e15 + 1; });

  EXPECT_THAT(Lines(), Contains("my_host_questions 1.5"));
  questions = 2;

  EXPECT_THAT(Lines(), Contains("my_host_questions 2"));
  EXPECT_THAT(Lines(), Contains("# TYPE my_host_questions gauge"));
  EXPECT_THAT(Lines(), Contains("# TYPE my_host_answers_total counter"));
  EXPECT_THAT(Lines(), Contains("my_host_answers_total 1000000000000001"));
}

TEST_F(ServerMetricsTest, NamesOfVarnicHostAreFree) {
  metrics_.AddGauge("varnic_host_questions", "Open questions.", [] { return 7.0; });

  EXPECT_THAT(Lines(), Contains("varnic_host_questions 7"));
}

TEST_F(ServerMetricsTest, OtherServersServiceDoesNotShowUp) {
  RpcServer other;
  const ServerMetrics metrics(other);

  EXPECT_THAT(metrics.Text(), Not(::testing::HasSubstr("/rpc.Profile/")));
}

using ServerMetricsDeathTest = ServerMetricsTest;

TEST_F(ServerMetricsDeathTest, NameThatCannotBeUsedIsFatal) {
  const auto read = [] { return 0.0; };
  metrics_.AddGauge("taken", "", read);

  EXPECT_DEATH(metrics_.AddGauge("taken", "", read), "Check failed");
  EXPECT_DEATH(metrics_.AddGauge("no name", "", read), "IsMetricName");
  EXPECT_DEATH(metrics_.AddGauge("varnic_calls_total", "", read), "varnic_");
  EXPECT_DEATH(metrics_.AddCounter("process_threads", "", read), "process_");
  EXPECT_DEATH(metrics_.AddGauge("name", "two\nlines", read), "help");
}

}  // namespace
}  // namespace varnic
