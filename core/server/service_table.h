#ifndef CORE_SERVER_SERVICE_TABLE_H_
#define CORE_SERVER_SERVICE_TABLE_H_

#include <google/protobuf/descriptor.h>

#include <string>
#include <string_view>

#include "absl/container/flat_hash_map.h"
#include "absl/container/flat_hash_set.h"
#include "absl/status/statusor.h"
#include "core/common/rpc/service.h"
#include "core/server/call_handler.h"

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
    Service* service;
    const google::protobuf::MethodDescriptor* descriptor;
    bool plain_streams = false;      // As ServiceOptions has it.
    CallHandler* handler = nullptr;  // If not null, in place of the service.
  };

  // Fatal if the service has no descriptor, or if one of that name was added before.
  void Add(Service& service, const ServiceOptions& options = {});
  // The same for a service that `handler` answers.
  void Add(const google::protobuf::ServiceDescriptor& descriptor, CallHandler& handler);

  // The method at a path, "/rpc.Profile/Path". UNIMPLEMENTED with a text that names what is
  // unknown: the service or its method.
  absl::StatusOr<Method> Find(std::string_view path) const;

 private:
  // Each method of the service becomes `method`, but for its descriptor.
  void AddMethods(const google::protobuf::ServiceDescriptor& service, Method method);

  absl::flat_hash_set<std::string> services_;
  absl::flat_hash_map<std::string, Method> methods_;  // By path.
};

}  // namespace varnic

#endif  // CORE_SERVER_SERVICE_TABLE_H_
