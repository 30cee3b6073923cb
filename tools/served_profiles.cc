#include "tools/served_profiles.h"

#include <functional>
#include <utility>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "core/host/browser_profiles.h"
#include "core/host/file_profiles.h"
#include "core/host/profile_store.h"
#include "core/host/user_data_dir.h"

namespace varnic::tools {
namespace {

absl::Status NameOption(const char* option, const absl::Status& status) {
  return absl::Status(status.code(), absl::StrCat(option, ": ", status.message()));
}

host::TaskThread::PostFunction PostTo(RpcServer& server) {
  return [&server](std::function<void()> task) { server.Post(std::move(task)); };
}

}  // namespace

absl::StatusOr<std::unique_ptr<ServedProfiles>> ServedProfiles::Open(RpcServer& server,
                                                                     const HostOptions& options) {
  auto served = std::unique_ptr<ServedProfiles>(new ServedProfiles());
  const absl::Status status = options.user_data_dir.empty() ? served->OpenBrowsers(server, options)
                                                            : served->OpenFiles(server, options);
  if (!status.ok()) return status;
  return served;
}

absl::Status ServedProfiles::OpenFiles(RpcServer& server, const HostOptions& options) {
  absl::StatusOr<host::UserDataDir> directory = host::UserDataDir::Open(options.user_data_dir);
  if (!directory.ok()) return NameOption("--user-data-dir", directory.status());
  host::FileProfilesOptions profile_options;
  profile_options.user_agent = options.user_agent;
  profile_options.browser = options.browser;
  profiles_ = std::make_unique<host::FileProfiles>(*std::move(directory),
                                                   std::move(profile_options), PostTo(server));
  return absl::OkStatus();
}

absl::Status ServedProfiles::OpenBrowsers(RpcServer& server, const HostOptions& options) {
  absl::StatusOr<host::ProfileStore> store = host::ProfileStore::Open(options.profiles_dir);
  if (!store.ok()) return NameOption("--profiles-dir", store.status());
  files_ = std::make_unique<host::TaskThread>(PostTo(server));
  asker_ = std::make_unique<host::QuestionAsker>(server.scheduler(), options.questions);
  host::BrowserProfilesOptions profile_options;
  profile_options.user_agent = options.user_agent;
  profile_options.keeper.process.launch.program = options.browser;
  profile_options.keeper.process.launch.without_sandbox = options.without_sandbox;
  profile_options.keeper.pacing = options.pacing;
  auto profiles = host::BrowserProfiles::Create(server.loop(), *files_, *asker_, *std::move(store),
                                                std::move(profile_options));
  if (!profiles.ok()) return NameOption("--profiles-dir", profiles.status());
  profiles_ = *std::move(profiles);
  return absl::OkStatus();
}

}  // namespace varnic::tools
