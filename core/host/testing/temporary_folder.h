#ifndef CORE_HOST_TESTING_TEMPORARY_FOLDER_H_
#define CORE_HOST_TESTING_TEMPORARY_FOLDER_H_

#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

#include "gtest/gtest.h"

namespace varnic::host::testing {

// An empty folder for one test, removed with all that is in it.
class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string path = ::testing::TempDir() + "/varnic-host-XXXXXX";
    if (::mkdtemp(path.data()) != nullptr) path_ = std::filesystem::canonical(path);
    EXPECT_FALSE(path_.empty()) << path;
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }

  const std::string& path() const { return path_; }
  std::string Path(const std::string& name) const { return path_ + "/" + name; }

  // Makes the folders on the way too. Returns the file's path.
  std::string Write(const std::string& name, const std::string& contents) const {
    std::filesystem::create_directories(std::filesystem::path(Path(name)).parent_path());
    std::ofstream(Path(name), std::ios::binary) << contents;
    return Path(name);
  }

  std::string Read(const std::string& name) const {
    std::ifstream file(Path(name), std::ios::binary);
    EXPECT_TRUE(file.is_open()) << Path(name);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  }

  // What `name` (by default the folder itself) contains, sorted.
  std::vector<std::string> Names(const std::string& name = "") const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(Path(name))) {
      names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

 private:
  std::string path_;
};

}  // namespace varnic::host::testing

#endif  // CORE_HOST_TESTING_TEMPORARY_FOLDER_H_
