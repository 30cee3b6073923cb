#ifndef COMPILER_FILE_FRAME_H_
#define COMPILER_FILE_FRAME_H_

#include <string>
#include <vector>

#include "compiler/service_model.h"

namespace varnic::compiler {

// What a generated header or source has around its code, for whichever part of a service.

// Where the file comes from: its first line or lines.
std::string Banner(const ServiceModel& model);

// "#include" lines for `paths`, in order.
std::string SystemIncludes(std::vector<std::string> paths);
std::string OwnIncludes(std::vector<std::string> paths);

// Of the package. Nothing for a file without one.
std::string OpenNamespaces(const ServiceModel& model);
std::string CloseNamespaces(const ServiceModel& model);

// The whole header at `path`: guarded, with `includes` before the namespaces and `code` in them.
std::string FrameHeader(const ServiceModel& model, const std::string& path,
                        const std::string& includes, const std::string& code);

}  // namespace varnic::compiler

#endif  // COMPILER_FILE_FRAME_H_
