#include "compiler/cpp_names.h"

#include <algorithm>
#include <cstddef>
#include <iterator>

#include "absl/strings/ascii.h"
#include "absl/strings/match.h"

namespace varnic::compiler {
namespace {

constexpr const char* kKeywords[] = {
    "alignas",       "alignof",     "and",
    "and_eq",        "asm",         "auto",
    "bitand",        "bitor",       "bool",
    "break",         "case",        "catch",
    "char",          "char16_t",    "char32_t",
    "char8_t",       "class",       "co_await",
    "co_return",     "co_yield",    "compl",
    "concept",       "const",       "const_cast",
    "consteval",     "constexpr",   "constinit",
    "continue",      "decltype",    "default",
    "delete",        "do",          "double",
    "dynamic_cast",  "else",        "enum",
    "explicit",      "export",      "extern",
    "false",         "float",       "for",
    "friend",        "goto",        "if",
    "inline",        "int",         "long",
    "mutable",       "namespace",   "new",
    "noexcept",      "not",         "not_eq",
    "nullptr",       "operator",    "or",
    "or_eq",         "private",     "protected",
    "public",        "register",    "reinterpret_cast",
    "requires",      "return",      "short",
    "signed",        "sizeof",      "static",
    "static_assert", "static_cast", "struct",
    "switch",        "template",    "this",
    "thread_local",  "throw",       "true",
    "try",           "typedef",     "typeid",
    "typename",      "union",       "unsigned",
    "using",         "virtual",     "void",
    "volatile",      "wchar_t",     "while",
    "xor",           "xor_eq",
};
// Of the headers that generated code includes, those that are not written as macros usually are.
constexpr const char* kMacros[] = {
    "alloca",
    "assert",
    "assert_perror",
    "be16toh",
    "be32toh",
    "be64toh",
    "bswap_16",
    "bswap_32",
    "bswap_64",
    "errno",
    "htobe16",
    "htobe32",
    "htobe64",
    "htole16",
    "htole32",
    "htole64",
    "issubnormal",
    "le16toh",
    "le32toh",
    "le64toh",
    "linux",
    "math_errhandling",
    "offsetof",
    "pthread_cleanup_pop",
    "pthread_cleanup_pop_restore_np",
    "pthread_cleanup_push",
    "pthread_cleanup_push_defer_np",
    "sched_priority",
    "st_atime",
    "st_ctime",
    "st_mtime",
    "stderr",
    "stdin",
    "stdout",
    "strdupa",
    "strndupa",
    "timeradd",
    "timerclear",
    "timercmp",
    "timerisset",
    "timersub",
    "unix",
    "va_arg",
    "va_copy",
    "va_end",
    "va_start",
};

constexpr const char* kMacroPrefixes[] = {
    "GOOGLE_PROTOBUF_INCLUDED_", "L_", "M_", "PROTOBUF_INTERNAL_EXPORT_", "P_", "SYS_",
    "VARNIC_INCLUDED_",
};

template <std::size_t kNames>
bool Contains(const char* const (&names)[kNames], const std::string& name) {
  return std::find(std::begin(names), std::end(names), name) != std::end(names);
}

// Which macros there are depends on the compiler and its headers; how they are called does not.
bool MayBeMacro(const std::string& name) {
  const bool has_small_letter = std::any_of(name.begin(), name.end(), absl::ascii_islower);
  const bool has_prefix =
      std::any_of(std::begin(kMacroPrefixes), std::end(kMacroPrefixes),
                  [&name](const char* prefix) { return absl::StartsWith(name, prefix); });
  return (name.size() >= 3 && !has_small_letter) || has_prefix || Contains(kMacros, name);
}

}  // namespace

bool CanBeCppName(const std::string& name) {
  return !name.empty() && !absl::ascii_isdigit(name[0]) && name[0] != '_' &&
         !Contains(kKeywords, name) && !MayBeMacro(name);
}

bool CanBeIncluded(const std::string& path) {
  return std::none_of(path.begin(), path.end(),
                      [](char c) { return c == '"' || c == '\\' || absl::ascii_iscntrl(c); });
}

}  // namespace varnic::compiler
