#include "compiler/name_rules.h"

#include <google/protobuf/compiler/cpp/names.h>
#include <google/protobuf/descriptor.pb.h>

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <vector>

#include "absl/strings/escaping.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_split.h"
#include "compiler/cpp_names.h"

namespace varnic::compiler {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::DescriptorPool;
using google::protobuf::FileDescriptor;
using google::protobuf::FileDescriptorProto;
using google::protobuf::MethodDescriptor;
using google::protobuf::ServiceDescriptor;
using google::protobuf::SourceLocation;
using google::protobuf::compiler::cpp::ClassName;

// What the members of a skeleton and of a client are called, and what their bodies refer to.
constexpr const char* kSkeletonNames[] = {
    "AssignDescriptors",    "CallMethod", "GetDescriptor", "GetRequestPrototype",
    "GetResponsePrototype", "OpenStream", "descriptor",    "init_service_descriptors_flag"};
constexpr const char* kClientNames[] = {"MethodAt", "client_"};
// What a skeleton's source has beside its class.
constexpr const char* kFileNames[] = {"AssignDescriptors", "add_descriptors_runner",
                                      "init_service_descriptors_flag"};

template <std::size_t kNames>
bool Contains(const char* const (&names)[kNames], const std::string& name) {
  return std::find(std::begin(names), std::end(names), name) != std::end(names);
}

// "p.A.B in x.proto:7", or without the line where the descriptors do not know it.
template <class DescriptorType>
std::string PlaceIn(const FileDescriptor& file, const DescriptorType& what) {
  SourceLocation location;
  const bool known = what.GetSourceLocation(&location);
  return absl::StrCat(what.full_name(), " in ", absl::Utf8SafeCEscape(file.name()),
                      known ? absl::StrCat(":", location.start_line + 1) : "");
}

template <class DescriptorType>
std::string Place(const DescriptorType& what) {
  return PlaceIn(*what.file(), what);
}

// The place of a message or an enum inside `type` that has this class in C++, which is nested in no
// other; empty if there is none.
std::string FindNestedClass(const Descriptor& type, const std::string& name) {
  for (int i = 0; i < type.enum_type_count(); ++i) {
    if (ClassName(type.enum_type(i)) == name) return Place(*type.enum_type(i));
  }
  for (int i = 0; i < type.nested_type_count(); ++i) {
    const Descriptor& nested = *type.nested_type(i);
    const std::string clash =
        ClassName(&nested) == name ? Place(nested) : FindNestedClass(nested, name);
    if (!clash.empty()) return clash;
  }
  return "";
}

// What in the package C++ calls so, as "p.A.B in x.proto:7"; empty if there is nothing.
std::string FindClash(const FileDescriptor& file, const std::string& name) {
  for (int i = 0; i < file.message_type_count(); ++i) {
    const std::string clash = FindNestedClass(*file.message_type(i), name);
    if (!clash.empty()) return clash;
  }
  const std::string full_name =
      file.package().empty() ? name : absl::StrCat(file.package(), ".", name);
  const DescriptorPool& pool = *file.pool();
  if (const auto* type = pool.FindMessageTypeByName(full_name)) return Place(*type);
  if (const auto* type = pool.FindEnumTypeByName(full_name)) return Place(*type);
  if (const auto* value = pool.FindEnumValueByName(full_name)) {
    return PlaceIn(*value->type()->file(), *value);
  }
  if (const auto* service = pool.FindServiceByName(full_name)) return Place(*service);
  if (const auto* extension = pool.FindExtensionByName(full_name)) return Place(*extension);
  // A package.
  const FileDescriptor* other = pool.FindFileContainingSymbol(full_name);
  return other == nullptr ? ""
                          : absl::StrCat(full_name, " in ", absl::Utf8SafeCEscape(other->name()));
}

void CheckFile(const FileDescriptor& file, Faults& faults) {
  if (!CanBeIncluded(file.name())) {
    faults.AddToFile({}, "no #include can hold this file's name; rename it");
  }
  const std::vector<std::string> package = absl::StrSplit(file.package(), '.', absl::SkipEmpty());
  for (const std::string& part : package) {
    if (CanBeCppName(part)) continue;
    faults.AddToFile({FileDescriptorProto::kPackageFieldNumber},
                     absl::StrCat("the package ", file.package(),
                                  " cannot be a C++ namespace, as C++ or a macro may mean `", part,
                                  "` otherwise; rename it"));
  }
  if (!package.empty() && package.front() == "varnic") {
    faults.AddToFile({FileDescriptorProto::kPackageFieldNumber},
                     absl::StrCat("the package ", file.package(),
                                  " is a namespace of the library itself; rename it"));
  }
}

// A class stands beside whatever else the package has.
void CheckClass(const ServiceDescriptor& service, const std::string& name, Faults& faults) {
  if (!CanBeCppName(name)) {
    faults.Add(service, absl::StrCat("cannot have the C++ class ", name, "; rename it"));
  }
  const std::string clash = FindClash(*service.file(), name);
  if (!clash.empty()) {
    faults.Add(service, absl::StrCat("has the C++ class ", name, ", and so has ", clash,
                                     "; rename one of them"));
  }
}

void AddMethod(const MethodDescriptor& method, const std::string& class_name,
               const std::string& why, Faults& faults) {
  faults.Add(method,
             absl::StrCat("cannot be a method of the C++ class ", class_name, ", where ", why));
}

// Of one class: what its functions are called.
template <std::size_t kNames>
void CheckName(const MethodDescriptor& method, const std::string& class_name,
               const char* const (&names)[kNames], Faults& faults) {
  const std::string& name = method.name();
  if (Contains(names, name) || name == class_name) {
    AddMethod(method, class_name, "its name means something else; rename it", faults);
  }
}

// A unary method has a waiting form, beside which another method would stand.
void CheckWaitingForm(const MethodDescriptor& method, Faults& faults) {
  if (method.client_streaming() || method.server_streaming()) return;
  const ServiceDescriptor& service = *method.service();
  if (const MethodDescriptor* other = service.FindMethodByName(WaitingForm(method.name()))) {
    AddMethod(*other, ClientClass(service),
              absl::StrCat("that is the waiting form of ", method.name(), "; rename one of them"),
              faults);
  }
}

void CheckSkeleton(const ServiceDescriptor& service, Faults& faults) {
  CheckClass(service, SkeletonClass(service), faults);
  for (const std::string name : kFileNames) {
    const std::string clash = FindClash(*service.file(), name);
    if (clash.empty()) continue;
    faults.Add(service, absl::StrCat("has a skeleton with its own ", name, "; rename ", clash));
  }
  for (int i = 0; i < service.method_count(); ++i) {
    CheckName(*service.method(i), SkeletonClass(service), kSkeletonNames, faults);
  }
}

void CheckClient(const ServiceDescriptor& service, Faults& faults) {
  CheckClass(service, ClientClass(service), faults);
  for (int i = 0; i < service.method_count(); ++i) {
    CheckName(*service.method(i), ClientClass(service), kClientNames, faults);
    CheckWaitingForm(*service.method(i), faults);
  }
}

}  // namespace

std::string SkeletonClass(const ServiceDescriptor& service) {
  return absl::StrCat(service.name(), "Rpc");
}

std::string ClientClass(const ServiceDescriptor& service) {
  return absl::StrCat(service.name(), "Client");
}

std::string WaitingForm(const std::string& method_name) {
  return absl::StrCat(method_name, "AndWait");
}

void CheckNames(const ServiceDescriptor& service, const Parts& parts, Faults& faults) {
  CheckFile(*service.file(), faults);
  for (int i = 0; i < service.method_count(); ++i) {
    if (CanBeCppName(service.method(i)->name())) continue;
    faults.Add(*service.method(i), "has a name that C++ or a macro may mean otherwise; rename it");
  }
  if (parts.skeleton) CheckSkeleton(service, faults);
  if (parts.client) CheckClient(service, faults);
}

}  // namespace varnic::compiler
