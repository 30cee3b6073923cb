#ifndef TESTS_PROGRAMS_TWO_SERVICES_H_
#define TESTS_PROGRAMS_TWO_SERVICES_H_

#include <memory>

#include "core/server/rpc_server.h"

namespace varnic {

// Two services that know nothing of each other, on one server. Each publishes and asks under the
// profile that it is called about:
//
//   rpc.Profile:
//     Name    publishes {online: true}; says how many streams took it
//     Path    asks whether "/etc/motd" may be read: "allowed" or "refused"
//     GetUserAgentMetadata
//             counts the streams of both services, as brands with their numbers for versions
//   download.Downloads:
//     Start   publishes RUNNING, for a new download of the profile
//     Pause   publishes PAUSED
//     Resume  asks whether to keep "setup.exe", and publishes COMPLETE or DISCARDED
//
// A question that gets no answer fails the call with the status that it ended with. Lives until the
// last Run() of the server has returned, and no longer than the server. RPC thread only.
class TwoServices {
 public:
  explicit TwoServices(RpcServer& server);
  ~TwoServices();

 private:
  class ProfileService;
  class DownloadService;

  std::unique_ptr<ProfileService> profiles_;
  std::unique_ptr<DownloadService> downloads_;
};

}  // namespace varnic

#endif  // TESTS_PROGRAMS_TWO_SERVICES_H_
