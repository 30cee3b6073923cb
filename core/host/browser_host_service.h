#ifndef CORE_HOST_BROWSER_HOST_SERVICE_H_
#define CORE_HOST_BROWSER_HOST_SERVICE_H_

#include <google/protobuf/descriptor.h>
#include <google/protobuf/empty.pb.h>
#include <google/protobuf/service.h>

#include <cstddef>
#include <memory>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/time/time.h"
#include "core/common/rpc/scheduler.h"
#include "core/common/rpc/stream_channel.h"
#include "core/host/profiles.h"
#include "core/host/state_publisher.h"
#include "core/net/lifetime.h"
#include "rpc/host/browser_host.rpc.h"

namespace varnic::host {

// Longer ones of a page are cut, because a page may make them as long as it likes.
constexpr std::size_t kMaxPageTextBytes = 4096;

// Serves what a host has, its profiles and their browsers, to the clients of rpc.BrowserHost.
//
// WhenProfilesChanged tells the whole state, as a StatePublisher does: under the empty key every
// profile, under a profile's id that one alone, and none where there is no such profile. However
// much changes in one turn of the loop, and while the profiles are being listed, makes one event. A
// list that fails is asked for again after kRetryTime; what is known stays until then.
//
// Addresses and titles of pages have kMaxPageTextBytes at most. What is no UTF-8 in any text is
// escaped, "\xff", as clients could not read it.
//
// Made, called and destroyed on the RPC thread, before the first stream opens. `profiles` and
// `scheduler` outlive it, and it is the one change listener of `profiles`. Calls must come from an
// RpcServer (see ServerController); they may be answered when the service is gone.
class BrowserHostService : public rpc::BrowserHostRpc {
 public:
  static constexpr absl::Duration kRetryTime = absl::Seconds(5);

  BrowserHostService(Profiles& profiles, Scheduler& scheduler);
  ~BrowserHostService() override;

  AbstractStream* OpenStream(const google::protobuf::MethodDescriptor* method,
                             StreamChannel channel) override;

  void ListProfiles(google::protobuf::RpcController* controller,
                    const google::protobuf::Empty* request, rpc::ProfileList* response,
                    google::protobuf::Closure* done) override;
  void CreateProfile(google::protobuf::RpcController* controller,
                     const rpc::CreateProfileRequest* request, rpc::ProfileInfo* response,
                     google::protobuf::Closure* done) override;
  void DeleteProfile(google::protobuf::RpcController* controller, const ProfileId* request,
                     google::protobuf::Empty* response, google::protobuf::Closure* done) override;
  void ListBrowsers(google::protobuf::RpcController* controller, const ProfileId* request,
                    rpc::BrowserList* response, google::protobuf::Closure* done) override;
  void CloseBrowser(google::protobuf::RpcController* controller, const BrowserId* request,
                    google::protobuf::Empty* response, google::protobuf::Closure* done) override;

 private:
  // Of the list that the publisher is to have.
  enum class Listing { kNone, kPosted, kAsked };

  // Lists the profiles, in the loop's next turn, or once more behind a list that is on its way.
  void Refresh();
  void AskForList();
  void OnListed(absl::StatusOr<rpc::ProfileList> list);
  void OnListFailed(const absl::Status& status);

  Profiles& profiles_;
  Scheduler& scheduler_;
  StatePublisher<rpc::ProfileList, rpc::ProfilesChanged> publisher_;
  Listing listing_ = Listing::kNone;
  bool is_outdated_ = false;  // Something may have changed since the list was asked for.
  bool has_failed_ = false;   // The last list.
  std::unique_ptr<Scheduler::Timer> retry_;
  net::Lifetime lifetime_;  // Last.
};

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_HOST_SERVICE_H_
