#ifndef COMPILER_FAULTS_H_
#define COMPILER_FAULTS_H_

#include <google/protobuf/descriptor.h>

#include <string>
#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"

namespace varnic::compiler {

// Collects what is wrong with one proto file. Lines are those of the proto file where the
// descriptors know them, and 1 where not.
class Faults {
 public:
  // `file` must outlive this.
  explicit Faults(const google::protobuf::FileDescriptor& file) : file_(file) {}

  // Of a service or a method: its full name and `text`.
  template <class DescriptorType>
  void Add(const DescriptorType& where, const std::string& text) {
    google::protobuf::SourceLocation location;
    const bool known = where.GetSourceLocation(&location);
    Add(known ? location.start_line + 1 : 1, absl::StrCat(where.full_name(), " ", text));
  }

  // Of the file itself, or of what `path` leads to in the numbers of FileDescriptorProto.
  void AddToFile(const std::vector<int>& path, const std::string& text);

  // OK, or INVALID_ARGUMENT with a line "file:line: what" for each fault, in the file's order.
  absl::Status status() const;

 private:
  struct Fault {
    int line = 0;
    std::string text;
  };

  void Add(int line, std::string text) { faults_.push_back({line, std::move(text)}); }

  const google::protobuf::FileDescriptor& file_;
  std::vector<Fault> faults_;
};

}  // namespace varnic::compiler

#endif  // COMPILER_FAULTS_H_
