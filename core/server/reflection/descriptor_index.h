#ifndef CORE_SERVER_REFLECTION_DESCRIPTOR_INDEX_H_
#define CORE_SERVER_REFLECTION_DESCRIPTOR_INDEX_H_

#include <google/protobuf/descriptor.h>

#include <set>
#include <string>
#include <vector>

#include "absl/container/flat_hash_map.h"
#include "absl/status/statusor.h"

namespace varnic {

// The files that make up some services: those that declare them, whatever these import, and the
// extensions, in the services' own pools, of the messages in all of them. Nothing else that the
// process has linked can be found here.
//
// Has copies of the files in a pool without a database behind it: any other pool remembers every
// name that it was asked for in vain, and here the names come from peers.
class DescriptorIndex {
 public:
  DescriptorIndex() = default;
  DescriptorIndex(const DescriptorIndex&) = delete;
  DescriptorIndex& operator=(const DescriptorIndex&) = delete;

  // The descriptor is not used afterwards. Of two files of one name, or with the same symbol, the
  // first stays alone.
  void AddService(const google::protobuf::ServiceDescriptor& service);

  // By full name.
  const std::set<std::string>& services() const { return services_; }

  // NOT_FOUND names what is unknown. Valid as long as the index.
  using File = const google::protobuf::FileDescriptor*;
  absl::StatusOr<File> FindFile(const std::string& name) const;
  absl::StatusOr<File> FindFileOfSymbol(const std::string& symbol) const;
  absl::StatusOr<File> FindFileOfExtension(const std::string& type, int number) const;

  // Of a message, in ascending order. NOT_FOUND if it is unknown.
  absl::StatusOr<std::set<int>> ExtensionNumbers(const std::string& type) const;

  // A file of this index as a serialised FileDescriptorProto.
  const std::string& Serialized(const google::protobuf::FileDescriptor& file) const {
    return serialized_.at(&file);
  }

 private:
  // `pool` is where to look for extensions.
  void AddFile(const google::protobuf::DescriptorPool& pool,
               const google::protobuf::FileDescriptor& file);
  void AddExtensionsOf(const google::protobuf::DescriptorPool& pool,
                       const google::protobuf::Descriptor& message);

  std::set<std::string> services_;
  google::protobuf::DescriptorPool pool_;
  absl::flat_hash_map<File, std::string> serialized_;
};

}  // namespace varnic

#endif  // CORE_SERVER_REFLECTION_DESCRIPTOR_INDEX_H_
