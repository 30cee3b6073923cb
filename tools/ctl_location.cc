#include "tools/ctl_location.h"

#include <filesystem>
#include <sstream>
#include <system_error>

namespace varnic::tools {
namespace {

constexpr char kName[] = "varnicctl";

std::filesystem::path FirstInPath(const Environment& environment) {
  const char* path = environment("PATH");
  std::istringstream folders(path == nullptr ? "" : path);
  std::string folder;
  std::error_code error;
  while (std::getline(folders, folder, ':')) {
    const std::filesystem::path program = std::filesystem::path(folder) / kName;
    if (std::filesystem::exists(program, error)) return program;
  }
  return {};
}

}  // namespace

std::string CtlProgram(const Environment& environment) {
  std::error_code error;
  const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
  const std::filesystem::path beside = self.parent_path() / kName;
  if (error || !std::filesystem::exists(beside, error)) return kName;
  const std::filesystem::path in_path = FirstInPath(environment);
  if (!in_path.empty() && std::filesystem::equivalent(in_path, beside, error)) return kName;
  return beside.string();
}

}  // namespace varnic::tools
