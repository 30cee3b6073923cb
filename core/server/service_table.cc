#include "core/server/service_table.h"

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/string_view.h"
#include "core/common/rpc/fatal.h"

namespace varnic {

void ServiceTable::Add(Service& service, const ServiceOptions& options) {
  const google::protobuf::ServiceDescriptor* descriptor = service.GetDescriptor();
  VARNIC_CHECK(descriptor != nullptr);
  AddMethods(*descriptor, {&service, nullptr, options.plain_streams});
}

void ServiceTable::Add(const google::protobuf::ServiceDescriptor& descriptor,
                       CallHandler& handler) {
  AddMethods(descriptor, {nullptr, nullptr, /*plain_streams=*/false, &handler});
}

void ServiceTable::AddMethods(const google::protobuf::ServiceDescriptor& service, Method method) {
  const bool is_new = services_.insert(service.full_name()).second;
  VARNIC_CHECK(is_new);
  for (int i = 0; i < service.method_count(); ++i) {
    method.descriptor = service.method(i);
    methods_.emplace(absl::StrCat("/", service.full_name(), "/", method.descriptor->name()),
                     method);
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
