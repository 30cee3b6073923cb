// Files of settings: whatever stands in one, it is read or refused, and a text that is set in it
// comes back, with everything else as it was.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>

#include "absl/status/status.h"
#include "core/common/rpc/fatal.h"
#include "core/host/preferences_file.h"

namespace varnic::host {
namespace {

// In memory where the system offers that: each save waits for the disk.
class ScratchFile {
 public:
  ScratchFile() {
    const std::filesystem::path memory = "/dev/shm";
    std::error_code error;
    const auto parent = std::filesystem::is_directory(memory)
                            ? memory
                            : std::filesystem::temp_directory_path(error);
    folder_ = (parent / "varnic-fuzz-XXXXXX").string();
    VARNIC_CHECK(mkdtemp(folder_.data()) != nullptr);
  }
  ~ScratchFile() {
    std::error_code error;
    std::filesystem::remove_all(folder_, error);
  }
  ScratchFile(const ScratchFile&) = delete;
  ScratchFile& operator=(const ScratchFile&) = delete;

  std::string path() const { return folder_ + "/Preferences"; }

  void Write(const char* bytes, size_t size) const {
    std::ofstream file(path(), std::ios::binary | std::ios::trunc);
    file.write(bytes, static_cast<std::streamsize>(size));
    VARNIC_CHECK(file.good());
  }
  std::string Read() const {
    std::ifstream file(path(), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  }

 private:
  std::string folder_;
};

void CheckDataLoss(const absl::Status& status) {
  VARNIC_CHECK(status.code() == absl::StatusCode::kDataLoss);
}

void CheckSetting(PreferencesFile file) {
  constexpr char kText[] = "fr,en";
  if (absl::Status status = file.SetString({"intl", "accept_languages"}, kText); !status.ok()) {
    return CheckDataLoss(status);
  }
  const auto text = file.GetString({"intl", "accept_languages"});
  VARNIC_CHECK(text.ok() && *text == kText);
}

void Check(const ScratchFile& scratch) {
  auto file = PreferencesFile::Load(scratch.path());
  if (!file.ok()) return CheckDataLoss(file.status());
  const auto name = file->GetString({"profile", "name"});
  if (!name.ok()) CheckDataLoss(name.status());
  const auto profiles = file->HasObject({"profile", "info_cache", "Default"});
  if (!profiles.ok()) CheckDataLoss(profiles.status());

  // What was saved once is saved the same way again.
  VARNIC_CHECK(file->Save().ok());
  const std::string saved = scratch.Read();
  auto again = PreferencesFile::Load(scratch.path());
  VARNIC_CHECK(again.ok());
  VARNIC_CHECK(again->Save().ok());
  VARNIC_CHECK(scratch.Read() == saved);
  VARNIC_CHECK(again->GetString({"profile", "name"}) == name);
  CheckSetting(*std::move(again));
}

}  // namespace
}  // namespace varnic::host

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const varnic::host::ScratchFile scratch;
  scratch.Write(reinterpret_cast<const char*>(data), size);
  varnic::host::Check(scratch);
  return 0;
}
