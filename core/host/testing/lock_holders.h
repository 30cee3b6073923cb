#ifndef CORE_HOST_TESTING_LOCK_HOLDERS_H_
#define CORE_HOST_TESTING_LOCK_HOLDERS_H_

#include <gtest/gtest.h>
#include <limits.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

namespace varnic::host::testing {

// What a SingletonLock says of its holder: this machine, and a process of it.
inline std::string HostName() {
  char name[HOST_NAME_MAX + 1] = {};
  EXPECT_EQ(::gethostname(name, HOST_NAME_MAX), 0);
  return name;
}

// The id of a process that has ended.
inline pid_t DeadProcess() {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(0);
  EXPECT_EQ(::waitpid(child, nullptr, 0), child);
  return child;
}

}  // namespace varnic::host::testing

#endif  // CORE_HOST_TESTING_LOCK_HOLDERS_H_
