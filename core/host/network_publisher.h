#ifndef CORE_HOST_NETWORK_PUBLISHER_H_
#define CORE_HOST_NETWORK_PUBLISHER_H_

#include <google/protobuf/descriptor.h>

#include <memory>
#include <optional>

#include "core/common/rpc/service.h"
#include "core/common/rpc/stream/event_publisher.h"
#include "core/common/rpc/stream/event_stream.h"
#include "core/common/rpc/stream_channel.h"
#include "rpc/identifiers.pb.h"
#include "rpc/profile/profile.pb.h"

namespace varnic::host {

// Tells the clients of WhenNetworkChanged what the network is: the state to each new subscriber at
// once, if it is known by then, and each state that differs from the last one to all of them. The
// network is the machine's, so it is the same under every key; no key is checked.
//
// While it exists, streams that end leave the registry, also where they share a key with others. It
// must outlive the streams that it opens. RPC thread only.
class NetworkPublisher {
 public:
  // Publishes `state`, whose profile_id is empty, unless it is what was published last.
  void Update(const rpc::NetworkChanged& state);

  // A stream for Service::OpenStream(), owned by the caller: an EventStream that sends the state to
  // its client when it becomes subscribed under a key. Subscribing once more sends nothing.
  std::unique_ptr<EventStream<rpc::NetworkChanged>> OpenStream(
      Service* service, const google::protobuf::MethodDescriptor* method, StreamChannel channel);

 private:
  class Stream;

  void SendState(const ProfileId& key, EventStream<rpc::NetworkChanged>& stream) const;

  EventPublisher<rpc::NetworkChanged> publisher_;
  std::optional<rpc::NetworkChanged> state_;  // None until the first Update().
};

}  // namespace varnic::host

#endif  // CORE_HOST_NETWORK_PUBLISHER_H_
