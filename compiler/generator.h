#ifndef COMPILER_GENERATOR_H_
#define COMPILER_GENERATOR_H_

#include <google/protobuf/compiler/code_generator.h>
#include <google/protobuf/descriptor.h>

#include <cstdint>
#include <string>
#include <vector>

namespace varnic::compiler {

// Writes x.rpc.h, x.rpc.cc, x.client.h and x.client.cc for each x.proto that declares a service,
// and nothing for others. What it is asked for by `parameter`: see parts.h.
//
// Any descriptors make code or an error, never a crash. Any thread.
class Generator final : public google::protobuf::compiler::CodeGenerator {
 public:
  bool Generate(const google::protobuf::FileDescriptor* file, const std::string& parameter,
                google::protobuf::compiler::GeneratorContext* context,
                std::string* error) const override;
  // Writes nothing if anything is wrong with one of the files, and tells what, of each.
  bool GenerateAll(const std::vector<const google::protobuf::FileDescriptor*>& files,
                   const std::string& parameter,
                   google::protobuf::compiler::GeneratorContext* context,
                   std::string* error) const override;
  std::uint64_t GetSupportedFeatures() const override { return FEATURE_PROTO3_OPTIONAL; }
};

}  // namespace varnic::compiler

#endif  // COMPILER_GENERATOR_H_
