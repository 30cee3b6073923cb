#include "compiler/generator.h"

#include <google/protobuf/io/zero_copy_stream.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>

#include "absl/status/statusor.h"
#include "absl/strings/str_join.h"
#include "compiler/client_writer.h"
#include "compiler/parts.h"
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

void WriteParts(const ServiceModel& model, const Parts& parts, GeneratorContext& context) {
  if (parts.skeleton) {
    Write(context, model.stem + ".rpc.h", WriteSkeletonHeader(model));
    Write(context, model.stem + ".rpc.cc", WriteSkeletonSource(model));
  }
  if (parts.client) {
    Write(context, model.stem + ".client.h", WriteClientHeader(model));
    Write(context, model.stem + ".client.cc", WriteClientSource(model));
  }
}

}  // namespace

bool Generator::Generate(const google::protobuf::FileDescriptor* file, const std::string& parameter,
                         GeneratorContext* context, std::string* error) const {
  return GenerateAll({file}, parameter, context, error);
}

bool Generator::GenerateAll(const std::vector<const google::protobuf::FileDescriptor*>& files,
                            const std::string& parameter, GeneratorContext* context,
                            std::string* error) const {
  const absl::StatusOr<Parts> parts = ParseParts(parameter);
  if (!parts.ok()) {
    *error = std::string(parts.status().message());
    return false;
  }
  std::vector<ServiceModel> models;
  std::vector<std::string> faults;
  for (const google::protobuf::FileDescriptor* file : files) {
    absl::StatusOr<std::optional<ServiceModel>> model = BuildServiceModel(*file, *parts);
    if (!model.ok()) {
      faults.emplace_back(model.status().message());
    } else if (model->has_value()) {
      models.push_back(**std::move(model));
    }
  }
  *error = absl::StrJoin(faults, "\n");
  if (!faults.empty()) return false;
  for (const ServiceModel& model : models) WriteParts(model, *parts, *context);
  return true;
}

}  // namespace varnic::compiler
