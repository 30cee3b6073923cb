#ifndef CORE_SERVER_STREAM_TABLE_H_
#define CORE_SERVER_STREAM_TABLE_H_

#include <google/protobuf/descriptor.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "absl/container/flat_hash_map.h"
#include "core/net/event_loop.h"
#include "core/net/grpc_server_connection.h"
#include "core/server/envelope_guard.h"
#include "core/server/envelope_stock.h"
#include "core/server/server_stream.h"
#include "core/server/service_table.h"

namespace varnic {

// What the streams that are open keep together.
struct StreamUsage {
  std::size_t subscriptions = 0;
  std::size_t waiting_messages = 0;
  std::size_t waiting_bytes = 0;
};

// The streams that are open on one server. Owns them, and a guard for each streaming method. RPC
// thread only.
class StreamTable : private ServerStream::Owner {
 public:
  // The loop must outlive the table.
  StreamTable(net::EventLoop& loop, const StreamLimits& limits) : loop_(loop), limits_(limits) {}
  StreamTable(const StreamTable&) = delete;
  StreamTable& operator=(const StreamTable&) = delete;
  // Only when every stream has ended, as they do with their connections.
  ~StreamTable() override;

  // Takes over a call of a streaming method, which the peer makes in `role`. UNIMPLEMENTED for a
  // method that no stream class serves; see ServiceOptions.
  void Open(const ServiceTable::Method& method, net::GrpcServerCall& call,
            const net::GrpcRequestHead& head, std::string role);

  // Ends every stream with `status`: at once, but for one that this is called from inside of.
  void EndAll(const absl::Status& status);

  std::size_t open_streams() const { return streams_.size(); }
  // Looks at every stream.
  StreamUsage Usage() const;
  // Over the server's life.
  std::uint64_t conflated_events() const { return conflated_events_; }
  std::uint64_t slow_readers() const { return slow_readers_; }

 private:
  void OnStreamEnded(ServerStream& stream) override;
  void OnEventConflated() override { ++conflated_events_; }
  void OnSlowReader() override { ++slow_readers_; }

  // Null for a plain stream.
  EnvelopeGuard* GuardOf(const ServiceTable::Method& method);

  net::EventLoop& loop_;
  const StreamLimits limits_;
  EnvelopeStock envelopes_;
  std::uint64_t conflated_events_ = 0;
  std::uint64_t slow_readers_ = 0;
  absl::flat_hash_map<const google::protobuf::MethodDescriptor*, std::unique_ptr<EnvelopeGuard>>
      guards_;
  absl::flat_hash_map<const ServerStream*, std::unique_ptr<ServerStream>> streams_;
};

}  // namespace varnic

#endif  // CORE_SERVER_STREAM_TABLE_H_
