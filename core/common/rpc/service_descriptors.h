#ifndef CORE_COMMON_RPC_SERVICE_DESCRIPTORS_H_
#define CORE_COMMON_RPC_SERVICE_DESCRIPTORS_H_

#include <google/protobuf/descriptor.h>

#include <cstddef>

#include "core/common/rpc/fatal.h"

namespace varnic {

// Stores the descriptors of `file`'s services, in their order, for a generated skeleton. A file
// with more services than the skeleton has room for stops the process at once, with no log record;
// one with fewer leaves the rest as they are.
template <std::size_t kServices>
void StoreServiceDescriptors(const google::protobuf::FileDescriptor& file,
                             const google::protobuf::ServiceDescriptor* (&services)[kServices]) {
  for (int i = 0; i < file.service_count(); ++i) {
    if (static_cast<std::size_t>(i) >= kServices) ImmediateTrap();
    services[i] = file.service(i);
  }
}

}  // namespace varnic

#endif  // CORE_COMMON_RPC_SERVICE_DESCRIPTORS_H_
