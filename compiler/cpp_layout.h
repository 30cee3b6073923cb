#ifndef COMPILER_CPP_LAYOUT_H_
#define COMPILER_CPP_LAYOUT_H_

#include <string>
#include <vector>

namespace varnic::compiler {

// C++ text as clang-format leaves it in this project's style (.clang-format): 100 columns, what is
// in parentheses lined up behind the opening one.

// `head`, then `arguments` in parentheses, then `tail`; `indent` spaces before each line. Ends with
// a newline.
std::string LayOutCall(int indent, const std::string& head,
                       const std::vector<std::string>& arguments, const std::string& tail);

// `type` and `name` on one line, or on two; ends with a newline.
std::string LayOutDeclaration(const std::string& type, const std::string& name);

// A comment of one paragraph, each line behind "// ".
std::string LayOutComment(const std::string& text);

// The macro that guards the header at `path`.
std::string IncludeGuard(const std::string& path);

// `path` as protoc writes it into the names of file-level objects: what is no letter or digit as
// "_" and its code.
std::string MangledPath(const std::string& path);

}  // namespace varnic::compiler

#endif  // COMPILER_CPP_LAYOUT_H_
