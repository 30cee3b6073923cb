#ifndef CORE_NET_CONFIG_FILE_H_
#define CORE_NET_CONFIG_FILE_H_

#include <sys/stat.h>

#include <string>
#include <vector>

#include "absl/status/statusor.h"
#include "absl/time/time.h"

namespace varnic::net {

// Reads a small file whole. An error names `path`; so does one for what is no regular file, or is
// larger than 1 MiB.
absl::StatusOr<std::string> ReadConfigFile(const std::string& path);

// Notices when any of a few files has been written to or replaced. Looks at most once in each
// `interval`, and reads none of them. One thread only.
class ConfigFileWatch {
 public:
  ConfigFileWatch(std::vector<std::string> paths, absl::Duration interval);

  // True if a file is not what it was at the last call that returned true, or at construction. Ask
  // before the files are read, so that a change while they are read is seen the next time.
  bool Changed();

 private:
  // What changes whenever a file's contents do, as far as stat() tells.
  struct Stamp {
    static Stamp Of(const std::string& path);
    bool operator==(const Stamp& other) const;

    bool exists = false;
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec modified = {};
    timespec changed = {};
  };

  std::vector<Stamp> Stamps() const;

  const std::vector<std::string> paths_;
  const absl::Duration interval_;
  std::vector<Stamp> seen_;
  absl::Time next_look_;
};

}  // namespace varnic::net

#endif  // CORE_NET_CONFIG_FILE_H_
