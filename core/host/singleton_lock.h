#ifndef CORE_HOST_SINGLETON_LOCK_H_
#define CORE_HOST_SINGLETON_LOCK_H_

#include <string>

#include "absl/status/status.h"

namespace varnic::host {

// OK if no Chromium runs on `user_data_dir`, as far as its SingletonLock tells: a symbolic link to
// "<host name>-<process id>", which a Chromium that was killed leaves behind. FAILED_PRECONDITION
// names the holder: a living process of this machine, or any of another machine, of which we cannot
// know. A lock that cannot be read counts as held. Any thread.
absl::Status CheckNoBrowserRuns(const std::string& user_data_dir);

}  // namespace varnic::host

#endif  // CORE_HOST_SINGLETON_LOCK_H_
