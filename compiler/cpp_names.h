#ifndef COMPILER_CPP_NAMES_H_
#define COMPILER_CPP_NAMES_H_

#include <string>

namespace varnic::compiler {

// False for keywords of C++ up to C++20; for what may be a macro of the headers that generated code
// includes: three characters or more and no small letter, or one of the few that are called
// otherwise; for what begins with an underscore, as the compiler's own names do; and for what is no
// identifier at all. protobuf has seen to it that there are only letters, digits and underscores.
bool CanBeCppName(const std::string& name);

// Whether `path` can stand between the quotes of an #include.
bool CanBeIncluded(const std::string& path);

}  // namespace varnic::compiler

#endif  // COMPILER_CPP_NAMES_H_
