#ifndef CORE_HOST_PROFILE_HOST_H_
#define CORE_HOST_PROFILE_HOST_H_

#include "core/host/network_publisher.h"
#include "core/host/profiles.h"
#include "rpc/profile/profile.rpc.h"

namespace varnic::host {

// Serves profiles to the clients of rpc.Profile.
//
// Made, called and destroyed on the RPC thread. An override asks `profiles` and returns; its
// closure runs when that has replied, which does not touch the host any more. Calls must come from
// an RpcServer (see ServerController). They end in any order.
class ProfileHost : public rpc::ProfileRpc {
 public:
  // `profiles` outlives the host.
  explicit ProfileHost(Profiles& profiles) : profiles_(profiles) {}

  // What the network is from now on, without a profile: goes to the clients of WhenNetworkChanged
  // (see NetworkPublisher), and to the profiles. A NetworkWatcher knows it; while nobody says it,
  // nothing is published.
  void OnNetworkState(const rpc::NetworkChanged& state);

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
  Profiles& profiles_;
  NetworkPublisher network_;
};

}  // namespace varnic::host

#endif  // CORE_HOST_PROFILE_HOST_H_
