#ifndef COMPILER_NAME_RULES_H_
#define COMPILER_NAME_RULES_H_

#include <google/protobuf/descriptor.h>

#include <string>

#include "compiler/faults.h"
#include "compiler/parts.h"

namespace varnic::compiler {

// How the generated code calls things, and which names of a proto file do not go with that.

// The service's name and "Rpc".
std::string SkeletonClass(const google::protobuf::ServiceDescriptor& service);
// The service's name and "Client".
std::string ClientClass(const google::protobuf::ServiceDescriptor& service);
// What the client's class calls the waiting form of a unary method: its name and "AndWait".
std::string WaitingForm(const std::string& method_name);
// What the skeleton's source calls the array of the file's service descriptors.
std::string DescriptorArray(const std::string& proto_file);

// Adds a fault for each name that C++ or the generated code means otherwise: of the file that the
// service stands in, of its package, of the service and of its methods.
void CheckNames(const google::protobuf::ServiceDescriptor& service, const Parts& parts,
                Faults& faults);

}  // namespace varnic::compiler

#endif  // COMPILER_NAME_RULES_H_
