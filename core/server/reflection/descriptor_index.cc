#include "core/server/reflection/descriptor_index.h"

#include <google/protobuf/descriptor.pb.h>

#include "absl/strings/str_cat.h"

namespace varnic {

using google::protobuf::Descriptor;
using google::protobuf::DescriptorPool;
using google::protobuf::FieldDescriptor;
using google::protobuf::FileDescriptor;

void DescriptorIndex::AddService(const google::protobuf::ServiceDescriptor& service) {
  services_.insert(service.full_name());
  AddFile(*service.file()->pool(), *service.file());
}

void DescriptorIndex::AddFile(const DescriptorPool& pool, const FileDescriptor& file) {
  if (pool_.FindFileByName(file.name()) != nullptr) return;
  for (int i = 0; i < file.dependency_count(); ++i) AddFile(pool, *file.dependency(i));
  google::protobuf::FileDescriptorProto proto;
  file.CopyTo(&proto);
  const FileDescriptor* copy = pool_.BuildFile(proto);
  if (copy == nullptr) return;  // protobuf has logged why.
  serialized_.emplace(copy, proto.SerializeAsString());
  for (int i = 0; i < file.message_type_count(); ++i) AddExtensionsOf(pool, *file.message_type(i));
}

void DescriptorIndex::AddExtensionsOf(const DescriptorPool& pool, const Descriptor& message) {
  if (message.extension_range_count() > 0) {
    std::vector<const FieldDescriptor*> extensions;
    pool.FindAllExtensions(&message, &extensions);
    for (const FieldDescriptor* extension : extensions) AddFile(pool, *extension->file());
  }
  for (int i = 0; i < message.nested_type_count(); ++i) {
    AddExtensionsOf(pool, *message.nested_type(i));
  }
}

absl::StatusOr<DescriptorIndex::File> DescriptorIndex::FindFile(const std::string& name) const {
  const File file = pool_.FindFileByName(name);
  if (file == nullptr) return absl::NotFoundError(absl::StrCat("Unknown file ", name));
  return file;
}

absl::StatusOr<DescriptorIndex::File> DescriptorIndex::FindFileOfSymbol(
    const std::string& symbol) const {
  const File file = pool_.FindFileContainingSymbol(symbol);
  if (file == nullptr) return absl::NotFoundError(absl::StrCat("Unknown symbol ", symbol));
  return file;
}

absl::StatusOr<DescriptorIndex::File> DescriptorIndex::FindFileOfExtension(const std::string& type,
                                                                           int number) const {
  const Descriptor* message = pool_.FindMessageTypeByName(type);
  if (message == nullptr) return absl::NotFoundError(absl::StrCat("Unknown message ", type));
  const FieldDescriptor* extension = pool_.FindExtensionByNumber(message, number);
  if (extension == nullptr) {
    return absl::NotFoundError(absl::StrCat(type, " has no extension ", number));
  }
  return extension->file();
}

absl::StatusOr<std::set<int>> DescriptorIndex::ExtensionNumbers(const std::string& type) const {
  const Descriptor* message = pool_.FindMessageTypeByName(type);
  if (message == nullptr) return absl::NotFoundError(absl::StrCat("Unknown message ", type));
  std::vector<const FieldDescriptor*> extensions;
  pool_.FindAllExtensions(message, &extensions);
  std::set<int> numbers;
  for (const FieldDescriptor* extension : extensions) numbers.insert(extension->number());
  return numbers;
}

}  // namespace varnic
