#include "core/server/service_table.h"

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/string_view.h"
#include "core/common/rpc/fatal.h"

namespace varnic {

void ServiceTable::Add(Service& service) {
  const google::protobuf::ServiceDescriptor* descriptor = service.GetDescriptor();
  VARNIC_CHECK(descriptor != nullptr);
  const bool is_new = services_.emplace(descriptor->full_name(), &service).second;
  VARNIC_CHECK(is_new);
  for (int i = 0; i < descriptor->method_count(); ++i) {
    const google::protobuf::MethodDescriptor* method = descriptor->method(i);
    methods_.emplace(absl::StrCat("/", descriptor->full_name(), "/", method->name()),
                     Method{&service, method});
  }
}

absl::StatusOr<ServiceTable::Method> ServiceTable::Find(std::string_view path) const {
  const absl::string_view key(path.data(), path.size());
  const auto method = methods_.find(key);
  if (method != methods_.end()) return method->second;

  const std::size_t slash = key.rfind('/');
  if (slash == absl::string_view::npos || slash == 0 || key[0] != '/') {
    return absl::UnimplementedError(absl::StrCat("Malformed method name \"", key, "\""));
  }
  const absl::string_view service = key.substr(1, slash - 1);
  if (!services_.contains(service)) {
    return absl::UnimplementedError(absl::StrCat("Unknown service ", service));
  }
  return absl::UnimplementedError(
      absl::StrCat("Unknown method ", key.substr(slash + 1), " of service ", service));
}

}  // namespace varnic
