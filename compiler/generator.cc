#include "compiler/generator.h"

#include <google/protobuf/io/zero_copy_stream.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <optional>

#include "absl/status/statusor.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/strip.h"
#include "compiler/service_model.h"
#include "compiler/skeleton_writer.h"

namespace varnic::compiler {
namespace {

using google::protobuf::compiler::GeneratorContext;
using google::protobuf::io::ZeroCopyOutputStream;

void Write(GeneratorContext& context, const std::string& path, const std::string& text) {
  const std::unique_ptr<ZeroCopyOutputStream> output(context.Open(path));
  std::size_t written = 0;
  void* buffer = nullptr;
  int size = 0;
  while (written < text.size() && output->Next(&buffer, &size)) {
    const std::size_t chunk = std::min(text.size() - written, static_cast<std::size_t>(size));
    std::memcpy(buffer, text.data() + written, chunk);
    written += chunk;
    output->BackUp(size - static_cast<int>(chunk));
  }
}

}  // namespace

bool Generator::Generate(const google::protobuf::FileDescriptor* file, const std::string& parameter,
                         GeneratorContext* context, std::string* error) const {
  if (!parameter.empty()) {
    *error = absl::StrCat("there is no option \"", parameter, "\"");
    return false;
  }
  const absl::StatusOr<std::optional<ServiceModel>> model = BuildServiceModel(*file);
  if (!model.ok()) {
    *error = std::string(model.status().message());
    return false;
  }
  if (!model->has_value()) return true;
  const std::string stem(absl::StripSuffix(file->name(), ".proto"));
  Write(*context, stem + ".rpc.h", WriteSkeletonHeader(**model));
  Write(*context, stem + ".rpc.cc", WriteSkeletonSource(**model));
  return true;
}

}  // namespace varnic::compiler
