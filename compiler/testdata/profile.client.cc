// Written by protoc-gen-varnic from rpc/profile/profile.proto. Changes here are lost.
#include "rpc/profile/profile.client.h"

#include <google/protobuf/generated_message_reflection.h>

#include <utility>

namespace rpc {

::varnic::Client::CallId ProfileClient::Path(
    const ::ProfileId& request, ::absl::Duration timeout,
    ::varnic::OnAnswer<::google::protobuf::StringValue> done) {
  return ::varnic::StartCall<::google::protobuf::StringValue>(client_, MethodAt(0), request,
                                                              timeout, ::std::move(done));
}

::absl::StatusOr<::google::protobuf::StringValue> ProfileClient::PathAndWait(
    const ::ProfileId& request, ::absl::Duration timeout) {
  return ::varnic::CallAndWait<::google::protobuf::StringValue>(client_, MethodAt(0), request,
                                                                timeout);
}

::varnic::Client::CallId ProfileClient::Name(
    const ::ProfileId& request, ::absl::Duration timeout,
    ::varnic::OnAnswer<::google::protobuf::StringValue> done) {
  return ::varnic::StartCall<::google::protobuf::StringValue>(client_, MethodAt(1), request,
                                                              timeout, ::std::move(done));
}

::absl::StatusOr<::google::protobuf::StringValue> ProfileClient::NameAndWait(
    const ::ProfileId& request, ::absl::Duration timeout) {
  return ::varnic::CallAndWait<::google::protobuf::StringValue>(client_, MethodAt(1), request,
                                                                timeout);
}

::varnic::Client::CallId ProfileClient::IsIncognito(
    const ::ProfileId& request, ::absl::Duration timeout,
    ::varnic::OnAnswer<::google::protobuf::BoolValue> done) {
  return ::varnic::StartCall<::google::protobuf::BoolValue>(client_, MethodAt(2), request, timeout,
                                                            ::std::move(done));
}

::absl::StatusOr<::google::protobuf::BoolValue> ProfileClient::IsIncognitoAndWait(
    const ::ProfileId& request, ::absl::Duration timeout) {
  return ::varnic::CallAndWait<::google::protobuf::BoolValue>(client_, MethodAt(2), request,
                                                              timeout);
}

::varnic::Client::CallId ProfileClient::IsDefault(
    const ::ProfileId& request, ::absl::Duration timeout,
    ::varnic::OnAnswer<::google::protobuf::BoolValue> done) {
  return ::varnic::StartCall<::google::protobuf::BoolValue>(client_, MethodAt(3), request, timeout,
                                                            ::std::move(done));
}

::absl::StatusOr<::google::protobuf::BoolValue> ProfileClient::IsDefaultAndWait(
    const ::ProfileId& request, ::absl::Duration timeout) {
  return ::varnic::CallAndWait<::google::protobuf::BoolValue>(client_, MethodAt(3), request,
                                                              timeout);
}

::varnic::Client::CallId ProfileClient::CreateBrowser(const ::rpc::BrowserOptions& request,
                                                      ::absl::Duration timeout,
                                                      ::varnic::OnAnswer<::BrowserId> done) {
  return ::varnic::StartCall<::BrowserId>(client_, MethodAt(4), request, timeout,
                                          ::std::move(done));
}

::absl::StatusOr<::BrowserId> ProfileClient::CreateBrowserAndWait(
    const ::rpc::BrowserOptions& request, ::absl::Duration timeout) {
  return ::varnic::CallAndWait<::BrowserId>(client_, MethodAt(4), request, timeout);
}

::varnic::Client::CallId ProfileClient::SetAcceptLanguage(
    const ::rpc::SetAcceptLanguageRequest& request, ::absl::Duration timeout,
    ::varnic::OnAnswer<::google::protobuf::Empty> done) {
  return ::varnic::StartCall<::google::protobuf::Empty>(client_, MethodAt(5), request, timeout,
                                                        ::std::move(done));
}

::absl::StatusOr<::google::protobuf::Empty> ProfileClient::SetAcceptLanguageAndWait(
    const ::rpc::SetAcceptLanguageRequest& request, ::absl::Duration timeout) {
  return ::varnic::CallAndWait<::google::protobuf::Empty>(client_, MethodAt(5), request, timeout);
}

::varnic::Client::CallId ProfileClient::GetAcceptLanguage(
    const ::ProfileId& request, ::absl::Duration timeout,
    ::varnic::OnAnswer<::google::protobuf::StringValue> done) {
  return ::varnic::StartCall<::google::protobuf::StringValue>(client_, MethodAt(6), request,
                                                              timeout, ::std::move(done));
}

::absl::StatusOr<::google::protobuf::StringValue> ProfileClient::GetAcceptLanguageAndWait(
    const ::ProfileId& request, ::absl::Duration timeout) {
  return ::varnic::CallAndWait<::google::protobuf::StringValue>(client_, MethodAt(6), request,
                                                                timeout);
}

::varnic::Client::CallId ProfileClient::GetUserAgent(
    const ::ProfileId& request, ::absl::Duration timeout,
    ::varnic::OnAnswer<::google::protobuf::StringValue> done) {
  return ::varnic::StartCall<::google::protobuf::StringValue>(client_, MethodAt(7), request,
                                                              timeout, ::std::move(done));
}

::absl::StatusOr<::google::protobuf::StringValue> ProfileClient::GetUserAgentAndWait(
    const ::ProfileId& request, ::absl::Duration timeout) {
  return ::varnic::CallAndWait<::google::protobuf::StringValue>(client_, MethodAt(7), request,
                                                                timeout);
}

::varnic::Client::CallId ProfileClient::GetUserAgentMetadata(
    const ::ProfileId& request, ::absl::Duration timeout,
    ::varnic::OnAnswer<::rpc::UserAgentMetadata> done) {
  return ::varnic::StartCall<::rpc::UserAgentMetadata>(client_, MethodAt(8), request, timeout,
                                                       ::std::move(done));
}

::absl::StatusOr<::rpc::UserAgentMetadata> ProfileClient::GetUserAgentMetadataAndWait(
    const ::ProfileId& request, ::absl::Duration timeout) {
  return ::varnic::CallAndWait<::rpc::UserAgentMetadata>(client_, MethodAt(8), request, timeout);
}

::std::unique_ptr<::varnic::EventSubscriber<::rpc::NetworkChanged>>
ProfileClient::WhenNetworkChanged(
    ::varnic::EventSubscriber<::rpc::NetworkChanged>::OnEvent on_event,
    ::varnic::StreamListeners listeners) {
  return ::std::make_unique<::varnic::EventSubscriber<::rpc::NetworkChanged>>(
      client_, MethodAt(9), ::std::move(on_event), ::std::move(listeners));
}

::std::unique_ptr<::varnic::CallbackAnswerer<::rpc::CanAccessFile>> ProfileClient::OnCanAccessFile(
    ::varnic::CallbackAnswerer<::rpc::CanAccessFile>::OnQuestion on_question,
    ::varnic::StreamListeners listeners) {
  return ::std::make_unique<::varnic::CallbackAnswerer<::rpc::CanAccessFile>>(
      client_, MethodAt(10), ::std::move(on_question), ::std::move(listeners));
}

::std::unique_ptr<::varnic::CallbackAnswerer<::rpc::Authenticate>> ProfileClient::OnAuthenticate(
    ::varnic::CallbackAnswerer<::rpc::Authenticate>::OnQuestion on_question,
    ::varnic::StreamListeners listeners) {
  return ::std::make_unique<::varnic::CallbackAnswerer<::rpc::Authenticate>>(
      client_, MethodAt(11), ::std::move(on_question), ::std::move(listeners));
}

const ::google::protobuf::MethodDescriptor& ProfileClient::MethodAt(int index) {
  static const ::google::protobuf::ServiceDescriptor* const service = [] {
    ::google::protobuf::internal::AssignDescriptors(
        &::descriptor_table_rpc_2fprofile_2fprofile_2eproto);
    const auto* pool = ::google::protobuf::DescriptorPool::generated_pool();
    const auto* file = pool->FindFileByName("rpc/profile/profile.proto");
    return file->service(0);
  }();
  return *service->method(index);
}

}  // namespace rpc
