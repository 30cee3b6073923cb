#include "compiler/file_frame.h"

#include <algorithm>
#include <utility>

#include "absl/strings/str_cat.h"
#include "absl/strings/str_join.h"
#include "compiler/cpp_layout.h"

namespace varnic::compiler {
namespace {

std::string Includes(std::vector<std::string> paths, const char* opening, const char* closing) {
  std::sort(paths.begin(), paths.end());
  std::string text;
  for (const std::string& path : paths) {
    absl::StrAppend(&text, "#include ", opening, path, closing, "\n");
  }
  return text;
}

}  // namespace

std::string Banner(const ServiceModel& model) {
  return LayOutComment(absl::StrCat("Written by protoc-gen-varnic from ", model.proto_file,
                                    ". Changes here are lost."));
}

std::string SystemIncludes(std::vector<std::string> paths) {
  return Includes(std::move(paths), "<", ">");
}

std::string OwnIncludes(std::vector<std::string> paths) {
  return Includes(std::move(paths), "\"", "\"");
}

std::string OpenNamespaces(const ServiceModel& model) {
  if (model.namespaces.empty()) return "";
  return absl::StrCat("namespace ", absl::StrJoin(model.namespaces, "::"), " {\n");
}

std::string CloseNamespaces(const ServiceModel& model) {
  if (model.namespaces.empty()) return "";
  return absl::StrCat("\n}  // namespace ", absl::StrJoin(model.namespaces, "::"), "\n");
}

std::string FrameHeader(const ServiceModel& model, const std::string& path,
                        const std::string& includes, const std::string& code) {
  const std::string guard = IncludeGuard(path);
  return absl::StrCat(Banner(model), "#ifndef ", guard, "\n#define ", guard, "\n\n", includes, "\n",
                      OpenNamespaces(model), model.namespaces.empty() ? "" : "\n", code,
                      CloseNamespaces(model), "\n#endif  // ", guard, "\n");
}

}  // namespace varnic::compiler
