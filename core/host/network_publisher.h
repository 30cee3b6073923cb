#ifndef CORE_HOST_NETWORK_PUBLISHER_H_
#define CORE_HOST_NETWORK_PUBLISHER_H_

#include <google/protobuf/descriptor.h>

#include <memory>
#include <utility>

#include "core/common/rpc/service.h"
#include "core/common/rpc/stream/event_stream.h"
#include "core/common/rpc/stream_channel.h"
#include "core/host/state_publisher.h"
#include "rpc/identifiers.pb.h"
#include "rpc/profile/profile.pb.h"

namespace varnic::host {

// Tells the clients of WhenNetworkChanged what the network is, as a StatePublisher does. The
// network is the machine's, so it is the same under every key.
//
// It must outlive the streams that it opens. RPC thread only.
class NetworkPublisher {
 public:
  // Publishes `state`, whose profile_id is empty, unless it is what was published last.
  void Update(const rpc::NetworkChanged& state) { publisher_.Update(state); }

  // See StatePublisher.
  std::unique_ptr<EventStream<rpc::NetworkChanged>> OpenStream(
      Service* service, const google::protobuf::MethodDescriptor* method, StreamChannel channel) {
    return publisher_.OpenStream(service, method, std::move(channel));
  }

 private:
  StatePublisher<rpc::NetworkChanged, rpc::NetworkChanged> publisher_{
      [](const rpc::NetworkChanged& state, const ProfileId& /*key*/) { return state; }};
};

}  // namespace varnic::host

#endif  // CORE_HOST_NETWORK_PUBLISHER_H_
