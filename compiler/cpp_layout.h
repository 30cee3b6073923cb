#ifndef COMPILER_CPP_LAYOUT_H_
#define COMPILER_CPP_LAYOUT_H_

#include <cstddef>
#include <string>
#include <vector>

namespace varnic::compiler {

// C++ text as clang-format leaves it in this project's style (.clang-format): 100 columns, what is
// in parentheses lined up behind the opening one, or four columns further in below it. Each piece
// of text begins with `indent` spaces and ends with a newline.

struct Parameter {
  std::string type;
  std::string name;
};

// A function's declaration or the beginning of its definition: `result name(parameters)tail`.
std::string LayOutFunction(int indent, const std::string& result, const std::string& name,
                           const std::vector<Parameter>& parameters, const std::string& tail);

// `function(arguments)tail`
std::string LayOutCall(int indent, const std::string& function,
                       const std::vector<std::string>& arguments, const std::string& tail);

// `function<type>(arguments)tail`
std::string LayOutTemplateCall(int indent, const std::string& function, const std::string& type,
                               const std::vector<std::string>& arguments, const std::string& tail);

// `return type::member;`
std::string LayOutReturn(int indent, const std::string& type, const std::string& member);

// `type` and `name` on one line, or on two; ends with a newline.
std::string LayOutDeclaration(const std::string& type, const std::string& name);

// A comment of one paragraph, each line behind "// ".
std::string LayOutComment(const std::string& text);

// The macro that guards the generated header at `path`, and no other. It is the path in capitals,
// of "rpc/profile/profile.rpc.h" and others that have nothing but small letters, digits and
// slashes.
std::string IncludeGuard(const std::string& path);

// `path` as protoc writes it into the names of file-level objects: what is no letter or digit as
// "_" and its code.
std::string MangledPath(const std::string& path);

}  // namespace varnic::compiler

#endif  // COMPILER_CPP_LAYOUT_H_
