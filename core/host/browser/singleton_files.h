#ifndef CORE_HOST_BROWSER_SINGLETON_FILES_H_
#define CORE_HOST_BROWSER_SINGLETON_FILES_H_

#include <string>

#include "absl/status/status.h"

namespace varnic::host {

// Makes `user_data_dir` ready for a browser: removes SingletonLock, SingletonCookie and
// SingletonSocket if the process of this machine that made them is dead, and the temporary folder
// of the socket with them. FAILED_PRECONDITION names a holder that lives, or may live on another
// machine, and says what to do; nothing is removed then.
//
// Reads and removes files; any thread. Nobody else may start a browser there meanwhile: the host's
// lock on the directory keeps other hosts away.
absl::Status ClearStaleSingletonFiles(const std::string& user_data_dir);

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_SINGLETON_FILES_H_
