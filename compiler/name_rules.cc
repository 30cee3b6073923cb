#include "compiler/name_rules.h"

#include <google/protobuf/compiler/cpp/names.h>
#include <google/protobuf/descriptor.pb.h>

#include <algorithm>
#include <vector>

#include "absl/strings/escaping.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_split.h"
#include "compiler/cpp_layout.h"
#include "compiler/cpp_names.h"

namespace varnic::compiler {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::DescriptorPool;
using google::protobuf::EnumDescriptor;
using google::protobuf::EnumValueDescriptor;
using google::protobuf::FileDescriptor;
using google::protobuf::FileDescriptorProto;
using google::protobuf::MethodDescriptor;
using google::protobuf::ServiceDescriptor;
using google::protobuf::SourceLocation;
using google::protobuf::compiler::cpp::ClassName;

constexpr char kTaken[] = "its name means something else; rename it";

// What the members of a skeleton are called, and what their bodies refer to.
std::vector<std::string> SkeletonNames(const FileDescriptor& file) {
  return {
      "AssignDescriptors",         "CallMethod", "GetDescriptor", "GetRequestPrototype",
      "GetResponsePrototype",      "OpenStream", "descriptor",    "init_service_descriptors_flag",
      DescriptorArray(file.name())};
}

// The same of a client.
std::vector<std::string> ClientNames() {
  return {"MethodAt", "client_"};
}

// What a skeleton's source has beside its class.
std::vector<std::string> FileNames(const FileDescriptor& file) {
  return {"AssignDescriptors", "add_descriptors_runner", "init_service_descriptors_flag",
          DescriptorArray(file.name())};
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

// The place of a nested enum, or of one of its values, that is called so in C++; empty if neither
// is.
std::string FindNestedEnum(const EnumDescriptor& type, const std::string& name) {
  const std::string class_name = ClassName(&type);
  if (class_name == name) return Place(type);
  for (int i = 0; i < type.value_count(); ++i) {
    const EnumValueDescriptor& value = *type.value(i);
    if (absl::StrCat(class_name, "_", value.name()) == name) return PlaceIn(*type.file(), value);
  }
  return "";
}

// The place of what is inside `type`, and called so in C++, where nothing is nested in a message;
// empty if there is nothing.
std::string FindNested(const Descriptor& type, const std::string& name) {
  for (int i = 0; i < type.enum_type_count(); ++i) {
    const std::string clash = FindNestedEnum(*type.enum_type(i), name);
    if (!clash.empty()) return clash;
  }
  for (int i = 0; i < type.nested_type_count(); ++i) {
    const Descriptor& nested = *type.nested_type(i);
    const std::string clash = ClassName(&nested) == name ? Place(nested) : FindNested(nested, name);
    if (!clash.empty()) return clash;
  }
  return "";
}

// What in the package C++ calls so, as "p.A.B in x.proto:7"; empty if there is nothing.
std::string FindClash(const FileDescriptor& file, const std::string& name) {
  for (int i = 0; i < file.message_type_count(); ++i) {
    const std::string clash = FindNested(*file.message_type(i), name);
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
  if (!package.empty() && (package.front() == "varnic" || package.front() == "absl")) {
    faults.AddToFile({FileDescriptorProto::kPackageFieldNumber},
                     absl::StrCat("the package ", file.package(), " is in the namespace ",
                                  package.front(), " of a library; rename it"));
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
void CheckName(const MethodDescriptor& method, const std::string& class_name,
               const std::vector<std::string>& names, Faults& faults) {
  const bool is_taken = std::find(names.begin(), names.end(), method.name()) != names.end();
  if (is_taken || method.name() == class_name) AddMethod(method, class_name, kTaken, faults);
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
  for (const std::string& name : FileNames(*service.file())) {
    const std::string clash = FindClash(*service.file(), name);
    if (clash.empty()) continue;
    faults.Add(service, absl::StrCat("has a skeleton with its own ", name, "; rename ", clash));
  }
  const std::vector<std::string> names = SkeletonNames(*service.file());
  for (int i = 0; i < service.method_count(); ++i) {
    CheckName(*service.method(i), SkeletonClass(service), names, faults);
  }
}

void CheckClient(const ServiceDescriptor& service, Faults& faults) {
  CheckClass(service, ClientClass(service), faults);
  for (int i = 0; i < service.method_count(); ++i) {
    CheckName(*service.method(i), ClientClass(service), ClientNames(), faults);
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

std::string DescriptorArray(const std::string& proto_file) {
  return absl::StrCat("file_level_service_descriptors_", MangledPath(proto_file));
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
