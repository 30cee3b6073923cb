#ifndef COMPILER_GENERATOR_H_
#define COMPILER_GENERATOR_H_

#include <google/protobuf/compiler/code_generator.h>
#include <google/protobuf/descriptor.h>

#include <cstdint>
#include <string>

namespace varnic::compiler {

// Writes x.rpc.h and x.rpc.cc for each x.proto that declares a service, and nothing for others.
class Generator final : public google::protobuf::compiler::CodeGenerator {
 public:
  bool Generate(const google::protobuf::FileDescriptor* file, const std::string& parameter,
                google::protobuf::compiler::GeneratorContext* context,
                std::string* error) const override;
  std::uint64_t GetSupportedFeatures() const override { return FEATURE_PROTO3_OPTIONAL; }
};

}  // namespace varnic::compiler

#endif  // COMPILER_GENERATOR_H_
