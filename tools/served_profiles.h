#ifndef TOOLS_SERVED_PROFILES_H_
#define TOOLS_SERVED_PROFILES_H_

#include <memory>
#include <string>

#include "absl/status/statusor.h"
#include "core/host/profiles.h"
#include "core/host/question_asker.h"
#include "core/host/task_thread.h"
#include "core/server/rpc_server.h"
#include "tools/host_options.h"

namespace varnic::tools {

// The profiles that a command line names, with all that they need: those of a folder, with their
// browsers, or the files of a user-data directory.
//
// Belongs to the server's thread, and goes before the server. Destroying it kills browsers that
// run; see Profiles::Close().
class ServedProfiles {
 public:
  // Before the server's first stream opens. An error names the option and says what is wrong.
  static absl::StatusOr<std::unique_ptr<ServedProfiles>> Open(RpcServer& server,
                                                              const HostOptions& options);

  host::Profiles& profiles() { return *profiles_; }
  // Who asks the clients; null for the files of a user-data directory, about which nobody asks.
  const host::QuestionAsker* asker() const { return asker_.get(); }

 private:
  ServedProfiles() = default;

  absl::Status OpenFiles(RpcServer& server, const HostOptions& options);
  absl::Status OpenBrowsers(RpcServer& server, const HostOptions& options);

  std::unique_ptr<host::TaskThread> files_;
  std::unique_ptr<host::QuestionAsker> asker_;
  std::unique_ptr<host::Profiles> profiles_;  // Last: uses both.
};

}  // namespace varnic::tools

#endif  // TOOLS_SERVED_PROFILES_H_
