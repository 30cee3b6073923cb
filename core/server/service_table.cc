#include "core/server/service_table.h"

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/string_view.h"
#include "core/common/rpc/fatal.h"

namespace varnic {

void ServiceTable::Add(Service& service, const ServiceOptions& options, CallCounters* counters) {
  const google::protobuf::ServiceDescriptor* descriptor = service.GetDescriptor();
  VARNIC_CHECK(descriptor != nullptr);
  AddName(*descriptor, counters);
  for (int i = 0; i < descriptor->method_count(); ++i) {
    Method& method = AddMethod(*descriptor->method(i), counters);
    method.service = &service;
    method.plain_streams = options.plain_streams;
  }
}

void ServiceTable::Add(const google::protobuf::ServiceDescriptor& descriptor, CallHandler& handler,
                       CallCounters* counters) {
  AddName(descriptor, counters);
  for (int i = 0; i < descriptor.method_count(); ++i) {
    AddMethod(*descriptor.method(i), counters).handler = &handler;
  }
}

void ServiceTable::AddName(const google::protobuf::ServiceDescriptor& service,
                           CallCounters* counters) {
  const bool is_new = services_.insert(service.full_name()).second;
  VARNIC_CHECK(is_new);
  if (counters != nullptr) counters->Add(service);
}

ServiceTable::Method& ServiceTable::AddMethod(const google::protobuf::MethodDescriptor& method,
                                              CallCounters* counters) {
  const std::string path = absl::StrCat("/", method.service()->full_name(), "/", method.name());
  std::unique_ptr<Method>& added = methods_[path];
  added = std::make_unique<Method>();
  added->path = path;
  added->descriptor = &method;
  added->kind = KindOfStream(method);
  if (counters != nullptr) added->counters = &counters->Of(path);
  return *added;
}

absl::StatusOr<const ServiceTable::Method*> ServiceTable::Find(std::string_view path) const {
  const Method* known = FindKnown(path);
  if (known != nullptr) return known;

  const absl::string_view key(path.data(), path.size());
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

const ServiceTable::Method* ServiceTable::FindKnown(std::string_view path) const {
  if (found_ != nullptr && found_->path == path) return found_;
  const auto method = methods_.find(absl::string_view(path.data(), path.size()));
  return method == methods_.end() ? nullptr : found_ = method->second.get();
}

}  // namespace varnic
