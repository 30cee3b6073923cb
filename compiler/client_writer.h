#ifndef COMPILER_CLIENT_WRITER_H_
#define COMPILER_CLIENT_WRITER_H_

#include <string>

#include "compiler/service_model.h"

namespace varnic::compiler {

// The C++ code of a service's client, typed calls and streams over a varnic::Client: what stands in
// x.client.h and x.client.cc for x.proto. It does not need the skeleton.
std::string WriteClientHeader(const ServiceModel& model);
std::string WriteClientSource(const ServiceModel& model);

}  // namespace varnic::compiler

#endif  // COMPILER_CLIENT_WRITER_H_
