#ifndef COMPILER_SKELETON_WRITER_H_
#define COMPILER_SKELETON_WRITER_H_

#include <string>

#include "compiler/service_model.h"

namespace varnic::compiler {

// The C++ code of a service's skeleton, from which a host derives its own class: what stands in
// x.rpc.h and x.rpc.cc for x.proto.
std::string WriteSkeletonHeader(const ServiceModel& model);
std::string WriteSkeletonSource(const ServiceModel& model);

}  // namespace varnic::compiler

#endif  // COMPILER_SKELETON_WRITER_H_
