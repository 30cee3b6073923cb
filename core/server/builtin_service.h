#ifndef CORE_SERVER_BUILTIN_SERVICE_H_
#define CORE_SERVER_BUILTIN_SERVICE_H_

#include <google/protobuf/descriptor.h>

namespace varnic {

// A service of the server's own, as clients know it, made from the one that is compiled in. That is
// in a package below `varnic.builtin`, as are its messages, because gRPC's own code for the same
// service, which a host may link as well, could not stand beside one of the same name. Only the
// names differ, and none of them but those of methods is on the wire.
//
// In a pool of its own, for good. Make each one once.
const google::protobuf::ServiceDescriptor& MakePublicService(
    const google::protobuf::ServiceDescriptor& compiled);

}  // namespace varnic

#endif  // CORE_SERVER_BUILTIN_SERVICE_H_
