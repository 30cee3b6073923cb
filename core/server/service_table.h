#ifndef CORE_SERVER_SERVICE_TABLE_H_
#define CORE_SERVER_SERVICE_TABLE_H_

#include <google/protobuf/descriptor.h>

#include <string>
#include <string_view>

#include "absl/container/flat_hash_map.h"
#include "absl/status/statusor.h"
#include "core/common/rpc/service.h"

namespace varnic {

// The services that one server serves, and where the path of each of their methods leads. Owns none
// of them; each must outlive the table.
class ServiceTable {
 public:
  struct Method {
    Service* service;
    const google::protobuf::MethodDescriptor* descriptor;
  };

  // Fatal if the service has no descriptor, or if one of that name was added before.
  void Add(Service& service);

  // The method at a path, "/rpc.Profile/Path". UNIMPLEMENTED with a text that names what is
  // unknown: the service or its method.
  absl::StatusOr<Method> Find(std::string_view path) const;

 private:
  absl::flat_hash_map<std::string, Service*> services_;
  absl::flat_hash_map<std::string, Method> methods_;  // By path.
};

}  // namespace varnic

#endif  // CORE_SERVER_SERVICE_TABLE_H_
