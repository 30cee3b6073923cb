#ifndef COMPILER_TESTING_PROTO_TEXTS_H_
#define COMPILER_TESTING_PROTO_TEXTS_H_

#include <google/protobuf/compiler/importer.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/io/zero_copy_stream.h>

#include <map>
#include <string>

namespace varnic::compiler::testing {

// A callback stream's type, called Question, with all that its templates need.
constexpr char kQuestion[] =
    "message Question { message Request {} message Response {} ProfileId profile_id = 1; "
    "oneof kind { bool subscribe = 2; Request request = 3; Response response = 4; } "
    "int64 call_id = 5; string error = 6; }\n";

// Proto files that stand in strings, parsed as protoc does, with their line numbers. What does not
// parse fails the test. Owns the descriptors that it gives.
class ProtoTexts : private google::protobuf::compiler::SourceTree,
                   private google::protobuf::compiler::MultiFileErrorCollector {
 public:
  // "rpc/event_subscription.proto" and "rpc/identifiers.proto" are there from the beginning.
  ProtoTexts();

  void Add(const std::string& path, const std::string& text);
  // Adds "x.proto", in proto3, with `text` from its second line on.
  const google::protobuf::FileDescriptor& X(const std::string& text);

  const google::protobuf::FileDescriptor& File(const std::string& path);

 private:
  google::protobuf::io::ZeroCopyInputStream* Open(const std::string& path) override;
  void AddError(const std::string& path, int line, int column, const std::string& text) override;

  std::map<std::string, std::string> texts_;
  google::protobuf::compiler::Importer importer_;
};

}  // namespace varnic::compiler::testing

#endif  // COMPILER_TESTING_PROTO_TEXTS_H_
