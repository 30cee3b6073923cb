#ifndef CORE_COMMON_RPC_PROCESS_DEATH_TEST_SUPPORT_H_
#define CORE_COMMON_RPC_PROCESS_DEATH_TEST_SUPPORT_H_

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <csignal>
#include <cstdlib>
#include <string>

namespace varnic::testing {

// For EXPECT_EXIT: the process ended by a trap instruction.
inline bool EndedByTrap(int status) {
  return WIFSIGNALED(status) && (WTERMSIG(status) == SIGILL || WTERMSIG(status) == SIGTRAP);
}

// Matches what a process wrote before it died if that is a fatal record from `file` with `text`,
// and stores the record's line.
inline auto FatalRecord(const std::string& file, const std::string& text, int& line) {
  return ::testing::Truly([file, text, &line](const std::string& output) {
    const auto at = output.find(file);
    if (at == std::string::npos || output.find("] ", at) == std::string::npos) return false;
    line = std::atoi(output.c_str() + output.find_first_of("0123456789", at + file.size()));
    return line > 0 && output.find(text + "\n", at) != std::string::npos;
  });
}

}  // namespace varnic::testing

#endif  // CORE_COMMON_RPC_PROCESS_DEATH_TEST_SUPPORT_H_
