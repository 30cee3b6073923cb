#ifndef CORE_HOST_PROFILE_HOST_H_
#define CORE_HOST_PROFILE_HOST_H_

#include <atomic>
#include <functional>
#include <optional>
#include <string>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "core/host/network_publisher.h"
#include "core/host/task_thread.h"
#include "core/host/user_agent.h"
#include "core/host/user_data_dir.h"
#include "rpc/profile/profile.rpc.h"

namespace varnic::host {

struct ProfileHostOptions {
  // What every profile calls itself; absent: what the installed browser calls itself.
  std::optional<UserAgent> user_agent;
  // The browser's program, a path or a name in PATH; empty: the system's Chromium.
  std::string browser;
};

// Serves the profiles of a Chromium user-data directory to the clients of rpc.Profile. It knows
// them by their files alone and runs no browser, so CreateBrowser fails, and no profile is
// incognito.
//
// Made, called and destroyed on the RPC thread. Files and the browser's version are read on a
// thread of its own: an override returns at once, and its closure runs later, through `post`. Calls
// must come from an RpcServer (see ServerController). Calls end in the order in which they came.
//
// The destructor waits for the task that is running; calls behind it end with UNAVAILABLE. Their
// closures, posted like all others, do not touch the host any more.
class ProfileHost : public rpc::ProfileRpc {
 public:
  // `post` runs a function on the RPC thread, later, and may be called on any thread
  // (RpcServer::Post).
  ProfileHost(UserDataDir directory, ProfileHostOptions options, TaskThread::PostFunction post);
  ~ProfileHost() override;

  // What the network is from now on, without a profile: goes to the clients of WhenNetworkChanged
  // (see NetworkPublisher). A NetworkWatcher knows it; while nobody says it, nothing is published.
  void OnNetworkState(const rpc::NetworkChanged& state) { network_.Update(state); }

  AbstractStream* OpenStream(const google::protobuf::MethodDescriptor* method,
                             StreamChannel channel) override;

  void Path(google::protobuf::RpcController* controller, const ProfileId* request,
            google::protobuf::StringValue* response, google::protobuf::Closure* done) override;
  void Name(google::protobuf::RpcController* controller, const ProfileId* request,
            google::protobuf::StringValue* response, google::protobuf::Closure* done) override;
  void IsIncognito(google::protobuf::RpcController* controller, const ProfileId* request,
                   google::protobuf::BoolValue* response, google::protobuf::Closure* done) override;
  void IsDefault(google::protobuf::RpcController* controller, const ProfileId* request,
                 google::protobuf::BoolValue* response, google::protobuf::Closure* done) override;
  void CreateBrowser(google::protobuf::RpcController* controller,
                     const rpc::BrowserOptions* request, BrowserId* response,
                     google::protobuf::Closure* done) override;
  void SetAcceptLanguage(google::protobuf::RpcController* controller,
                         const rpc::SetAcceptLanguageRequest* request,
                         google::protobuf::Empty* response,
                         google::protobuf::Closure* done) override;
  void GetAcceptLanguage(google::protobuf::RpcController* controller, const ProfileId* request,
                         google::protobuf::StringValue* response,
                         google::protobuf::Closure* done) override;
  void GetUserAgent(google::protobuf::RpcController* controller, const ProfileId* request,
                    google::protobuf::StringValue* response,
                    google::protobuf::Closure* done) override;
  void GetUserAgentMetadata(google::protobuf::RpcController* controller, const ProfileId* request,
                            rpc::UserAgentMetadata* response,
                            google::protobuf::Closure* done) override;

 private:
  // Runs `work` on the task thread; then, on the RPC thread, gives its value to `fill`, or fails
  // the call with its status, and runs `done`. `fill` must not use the host.
  template <typename Value, typename Fill>
  void Answer(google::protobuf::RpcController* controller, google::protobuf::Closure* done,
              std::function<absl::StatusOr<Value>()> work, Fill fill);

  // The user agent of the profile `id`. A version once found is kept; a failed look-up is tried
  // again by the next call. Task thread only.
  absl::StatusOr<UserAgent> UserAgentOfProfile(const std::string& id);

  UserDataDir directory_;  // Task thread only.
  const std::string browser_;
  std::optional<UserAgent> user_agent_;  // Task thread only.
  std::atomic<bool> is_ending_ = false;
  NetworkPublisher network_;
  TaskThread tasks_;  // Last: its tasks use all of the above.
};

}  // namespace varnic::host

#endif  // CORE_HOST_PROFILE_HOST_H_
