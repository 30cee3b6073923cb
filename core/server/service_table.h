#ifndef CORE_SERVER_SERVICE_TABLE_H_
#define CORE_SERVER_SERVICE_TABLE_H_

#include <google/protobuf/descriptor.h>

#include <memory>
#include <string>
#include <string_view>

#include "absl/container/flat_hash_map.h"
#include "absl/container/flat_hash_set.h"
#include "absl/status/statusor.h"
#include "core/common/rpc/service.h"
#include "core/common/rpc/stream_kind.h"
#include "core/server/call_handler.h"
#include "core/server/message_stock.h"
#include "core/server/metrics/call_counters.h"

namespace varnic {

// How a service is served.
struct ServiceOptions {
  // Serves the bidirectional methods that are neither event nor callback streams, too. Their stream
  // classes are the service's own, and get every message of the client as it comes: the payload may
  // be any bytes, and nothing bounds what a stream keeps of them. Without it, and where
  // OpenStream() gives null, such a method is UNIMPLEMENTED.
  bool plain_streams = false;
};

// The services that one server serves, and where the path of each of their methods leads. Owns none
// of them; each must outlive the table.
class ServiceTable {
 public:
  struct Method {
    bool is_stream() const {
      return descriptor->client_streaming() || descriptor->server_streaming();
    }

    std::string path;
    Service* service = nullptr;
    const google::protobuf::MethodDescriptor* descriptor = nullptr;
    bool plain_streams = false;          // As ServiceOptions has it.
    CallHandler* handler = nullptr;      // If not null, in place of the service.
    MethodCounters* counters = nullptr;  // Null if nobody counts.
    StreamKind kind = StreamKind::kNone;
    // Of unary calls that have ended, for those to come.
    mutable MessageStock requests;
    mutable MessageStock responses;
  };

  // Fatal if the service has no descriptor, or if one of that name was added before. `counters`,
  // which outlive the table, get to know the service, and count its calls.
  void Add(Service& service, const ServiceOptions& options = {}, CallCounters* counters = nullptr);
  // The same for a service that `handler` answers.
  void Add(const google::protobuf::ServiceDescriptor& descriptor, CallHandler& handler,
           CallCounters* counters = nullptr);

  // The method at a path, "/rpc.Profile/Path"; valid as long as the table. UNIMPLEMENTED with a
  // text that names what is unknown: the service or its method.
  absl::StatusOr<const Method*> Find(std::string_view path) const;

 private:
  Method& AddMethod(const google::protobuf::MethodDescriptor& method, CallCounters* counters);
  void AddName(const google::protobuf::ServiceDescriptor& service, CallCounters* counters);

  const Method* FindKnown(std::string_view path) const;

  absl::flat_hash_set<std::string> services_;
  absl::flat_hash_map<std::string, std::unique_ptr<Method>> methods_;  // By path.
  mutable const Method* found_ = nullptr;  // Mostly the one that is looked for next.
};

}  // namespace varnic

#endif  // CORE_SERVER_SERVICE_TABLE_H_
