#ifndef COMPILER_SERVICE_MODEL_H_
#define COMPILER_SERVICE_MODEL_H_

#include <google/protobuf/descriptor.h>

#include <optional>
#include <string>
#include <vector>

#include "absl/status/statusor.h"
#include "compiler/parts.h"

namespace varnic::compiler {

// One method of a service, as the C++ code that is written for it names it.
struct MethodModel {
  enum class Kind {
    kUnary,
    kEventStream,     // The client sends rpc.EventSubscription, the host pushes events.
    kCallbackStream,  // Both sides send one type: the host asks, the client answers.
  };

  std::string name;
  Kind kind = Kind::kUnary;
  std::string request_class;  // "::rpc::BrowserOptions"
  std::string response_class;
};

// What a proto file with a service says, as far as its C++ code depends on it.
struct ServiceModel {
  std::string proto_file;               // "rpc/profile/profile.proto"
  std::string stem;                     // "rpc/profile/profile"
  std::vector<std::string> namespaces;  // The package's, outermost first.
  std::string skeleton_class;           // The service's name and "Rpc".
  std::string client_class;             // The service's name and "Client".
  std::string service_name;             // With its package: "rpc.Profile".
  std::vector<MethodModel> methods;     // In the order of the file, which is that of their numbers.

  bool HasKind(MethodModel::Kind kind) const;
};

// The model of the file's only service; nothing for a file without one. An error has a line for
// each thing that is wrong for the `parts` that are to be written: the file, the line, the service
// or method, and what to change.
absl::StatusOr<std::optional<ServiceModel>> BuildServiceModel(
    const google::protobuf::FileDescriptor& file, const Parts& parts = {});

}  // namespace varnic::compiler

#endif  // COMPILER_SERVICE_MODEL_H_
