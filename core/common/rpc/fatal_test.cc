#include "core/common/rpc/fatal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>

#include "core/common/rpc/process_death_test_support.h"

namespace varnic {
namespace {

using testing::EndedByTrap;
using testing::FatalRecord;
using ::testing::IsEmpty;

TEST(FatalDeathTest, AFatalRecordCarriesFileLineAndText) {
  const auto die = [] { VARNIC_FATAL("the last words"); };
  const int line_of_statement = __LINE__ - 1;
  int line = 0;

  EXPECT_DEATH(die(), FatalRecord("fatal_test.cc", "the last words", line));

  EXPECT_EQ(line, line_of_statement);
}

TEST(FatalDeathTest, AFatalRecordAbortsTheProcess) {
  EXPECT_EXIT(VARNIC_FATAL("text"), ::testing::KilledBySignal(SIGABRT), "text");
}

TEST(FatalDeathTest, TheTextIsNotAFormat) {
  int line = 0;

  EXPECT_DEATH(VARNIC_FATAL("100 %s %n"), FatalRecord("fatal_test.cc", "100 %s %n", line));
}

TEST(FatalDeathTest, AFailedCheckNamesItsCondition) {
  const int answer = 41;
  int line = 0;

  EXPECT_DEATH(VARNIC_CHECK(answer == 42),
               FatalRecord("fatal_test.cc", "Check failed: answer == 42", line));
}

TEST(FatalTest, ACheckThatHoldsEvaluatesItsConditionOnce) {
  int evaluations = 0;

  VARNIC_CHECK(++evaluations == 1);

  EXPECT_EQ(evaluations, 1);
}

TEST(FatalDeathTest, TheImmediateTrapWritesNothing) {
  EXPECT_EXIT(ImmediateTrap(), EndedByTrap, IsEmpty());
}

}  // namespace
}  // namespace varnic
