// Written by protoc-gen-varnic from rpc/profile/profile.proto. Changes here are lost.
#include "rpc/profile/profile.rpc.h"

#include <google/protobuf/generated_message_reflection.h>

#include <mutex>
#include <string>
#include <utility>

#include "core/common/rpc/fatal.h"
#include "core/common/rpc/service_descriptors.h"
#include "core/common/rpc/stream/callback_stream.h"
#include "core/common/rpc/stream/event_stream.h"

namespace rpc {
namespace {

::std::once_flag init_service_descriptors_flag;
const ::google::protobuf::ServiceDescriptor*
    file_level_service_descriptors_rpc_2fprofile_2fprofile_2eproto[1];

// Registers the file with the generated pool before the program starts, whichever of its objects
// the linker has kept.
const ::google::protobuf::internal::AddDescriptorsRunner add_descriptors_runner(
    &::descriptor_table_rpc_2fprofile_2fprofile_2eproto);

void AssignDescriptors() {
  const ::google::protobuf::FileDescriptor* file =
      ::google::protobuf::DescriptorPool::generated_pool()->FindFileByName(
          "rpc/profile/profile.proto");
  ::varnic::StoreServiceDescriptors(*file,
                                    file_level_service_descriptors_rpc_2fprofile_2fprofile_2eproto);
}

}  // namespace

const ::google::protobuf::ServiceDescriptor* ProfileRpc::descriptor() {
  ::google::protobuf::internal::AssignDescriptors(
      &::descriptor_table_rpc_2fprofile_2fprofile_2eproto);
  ::std::call_once(init_service_descriptors_flag, AssignDescriptors);
  return file_level_service_descriptors_rpc_2fprofile_2fprofile_2eproto[0];
}

const ::google::protobuf::ServiceDescriptor* ProfileRpc::GetDescriptor() {
  return descriptor();
}

void ProfileRpc::CallMethod(const ::google::protobuf::MethodDescriptor* method,
                            ::google::protobuf::RpcController* controller,
                            const ::google::protobuf::Message* request,
                            ::google::protobuf::Message* response,
                            ::google::protobuf::Closure* done) {
  switch (method->index()) {
    case 0:
      Path(controller, static_cast<const ::ProfileId*>(request),
           static_cast<::google::protobuf::StringValue*>(response), done);
      return;
    case 1:
      Name(controller, static_cast<const ::ProfileId*>(request),
           static_cast<::google::protobuf::StringValue*>(response), done);
      return;
    case 2:
      IsIncognito(controller, static_cast<const ::ProfileId*>(request),
                  static_cast<::google::protobuf::BoolValue*>(response), done);
      return;
    case 3:
      IsDefault(controller, static_cast<const ::ProfileId*>(request),
                static_cast<::google::protobuf::BoolValue*>(response), done);
      return;
    case 4:
      CreateBrowser(controller, static_cast<const ::rpc::BrowserOptions*>(request),
                    static_cast<::BrowserId*>(response), done);
      return;
    case 5:
      SetAcceptLanguage(controller, static_cast<const ::rpc::SetAcceptLanguageRequest*>(request),
                        static_cast<::google::protobuf::Empty*>(response), done);
      return;
    case 6:
      GetAcceptLanguage(controller, static_cast<const ::ProfileId*>(request),
                        static_cast<::google::protobuf::StringValue*>(response), done);
      return;
    case 7:
      GetUserAgent(controller, static_cast<const ::ProfileId*>(request),
                   static_cast<::google::protobuf::StringValue*>(response), done);
      return;
    case 8:
      GetUserAgentMetadata(controller, static_cast<const ::ProfileId*>(request),
                           static_cast<::rpc::UserAgentMetadata*>(response), done);
      return;
    case 9:
      VARNIC_FATAL("Streaming method can't be called with this call.");
    case 10:
      VARNIC_FATAL("Streaming method can't be called with this call.");
    case 11:
      VARNIC_FATAL("Streaming method can't be called with this call.");
    default:
      VARNIC_FATAL("Bad method index; this should never happen.");
  }
}

const ::google::protobuf::Message& ProfileRpc::GetRequestPrototype(
    const ::google::protobuf::MethodDescriptor* method) const {
  switch (method->index()) {
    case 0:
      return ::ProfileId::default_instance();
    case 1:
      return ::ProfileId::default_instance();
    case 2:
      return ::ProfileId::default_instance();
    case 3:
      return ::ProfileId::default_instance();
    case 4:
      return ::rpc::BrowserOptions::default_instance();
    case 5:
      return ::rpc::SetAcceptLanguageRequest::default_instance();
    case 6:
      return ::ProfileId::default_instance();
    case 7:
      return ::ProfileId::default_instance();
    case 8:
      return ::ProfileId::default_instance();
    case 9:
      return ::rpc::EventSubscription::default_instance();
    case 10:
      return ::rpc::CanAccessFile::default_instance();
    case 11:
      return ::rpc::Authenticate::default_instance();
    default:
      VARNIC_FATAL("Bad method index; this should never happen.");
  }
}

const ::google::protobuf::Message& ProfileRpc::GetResponsePrototype(
    const ::google::protobuf::MethodDescriptor* method) const {
  switch (method->index()) {
    case 0:
      return ::google::protobuf::StringValue::default_instance();
    case 1:
      return ::google::protobuf::StringValue::default_instance();
    case 2:
      return ::google::protobuf::BoolValue::default_instance();
    case 3:
      return ::google::protobuf::BoolValue::default_instance();
    case 4:
      return ::BrowserId::default_instance();
    case 5:
      return ::google::protobuf::Empty::default_instance();
    case 6:
      return ::google::protobuf::StringValue::default_instance();
    case 7:
      return ::google::protobuf::StringValue::default_instance();
    case 8:
      return ::rpc::UserAgentMetadata::default_instance();
    case 9:
      return ::rpc::NetworkChanged::default_instance();
    case 10:
      return ::rpc::CanAccessFile::default_instance();
    case 11:
      return ::rpc::Authenticate::default_instance();
    default:
      VARNIC_FATAL("Bad method index; this should never happen.");
  }
}

::varnic::AbstractStream* ProfileRpc::OpenStream(const ::google::protobuf::MethodDescriptor* method,
                                                 ::varnic::StreamChannel channel) {
  switch (method->index()) {
    case 0:
      VARNIC_FATAL("Cannot open a stream for a non-streaming method.");
    case 1:
      VARNIC_FATAL("Cannot open a stream for a non-streaming method.");
    case 2:
      VARNIC_FATAL("Cannot open a stream for a non-streaming method.");
    case 3:
      VARNIC_FATAL("Cannot open a stream for a non-streaming method.");
    case 4:
      VARNIC_FATAL("Cannot open a stream for a non-streaming method.");
    case 5:
      VARNIC_FATAL("Cannot open a stream for a non-streaming method.");
    case 6:
      VARNIC_FATAL("Cannot open a stream for a non-streaming method.");
    case 7:
      VARNIC_FATAL("Cannot open a stream for a non-streaming method.");
    case 8:
      VARNIC_FATAL("Cannot open a stream for a non-streaming method.");
    case 9:
      return new ::varnic::EventStream<::rpc::NetworkChanged>(this, method, ::std::move(channel));
    case 10:
      return new ::varnic::CallbackStream<::rpc::CanAccessFile>(this, method, ::std::move(channel));
    case 11:
      return new ::varnic::CallbackStream<::rpc::Authenticate>(this, method, ::std::move(channel));
    default:
      VARNIC_FATAL("Bad method index; this should never happen.");
  }
}

void ProfileRpc::Path(::google::protobuf::RpcController* controller, const ::ProfileId* /*request*/,
                      ::google::protobuf::StringValue* /*response*/,
                      ::google::protobuf::Closure* done) {
  controller->SetFailed("Method Path() not implemented.");
  done->Run();
}

void ProfileRpc::Name(::google::protobuf::RpcController* controller, const ::ProfileId* /*request*/,
                      ::google::protobuf::StringValue* /*response*/,
                      ::google::protobuf::Closure* done) {
  controller->SetFailed("Method Name() not implemented.");
  done->Run();
}

void ProfileRpc::IsIncognito(::google::protobuf::RpcController* controller,
                             const ::ProfileId* /*request*/,
                             ::google::protobuf::BoolValue* /*response*/,
                             ::google::protobuf::Closure* done) {
  controller->SetFailed("Method IsIncognito() not implemented.");
  done->Run();
}

void ProfileRpc::IsDefault(::google::protobuf::RpcController* controller,
                           const ::ProfileId* /*request*/,
                           ::google::protobuf::BoolValue* /*response*/,
                           ::google::protobuf::Closure* done) {
  controller->SetFailed("Method IsDefault() not implemented.");
  done->Run();
}

void ProfileRpc::CreateBrowser(::google::protobuf::RpcController* controller,
                               const ::rpc::BrowserOptions* /*request*/, ::BrowserId* /*response*/,
                               ::google::protobuf::Closure* done) {
  controller->SetFailed("Method CreateBrowser() not implemented.");
  done->Run();
}

void ProfileRpc::SetAcceptLanguage(::google::protobuf::RpcController* controller,
                                   const ::rpc::SetAcceptLanguageRequest* /*request*/,
                                   ::google::protobuf::Empty* /*response*/,
                                   ::google::protobuf::Closure* done) {
  controller->SetFailed("Method SetAcceptLanguage() not implemented.");
  done->Run();
}

void ProfileRpc::GetAcceptLanguage(::google::protobuf::RpcController* controller,
                                   const ::ProfileId* /*request*/,
                                   ::google::protobuf::StringValue* /*response*/,
                                   ::google::protobuf::Closure* done) {
  controller->SetFailed("Method GetAcceptLanguage() not implemented.");
  done->Run();
}

void ProfileRpc::GetUserAgent(::google::protobuf::RpcController* controller,
                              const ::ProfileId* /*request*/,
                              ::google::protobuf::StringValue* /*response*/,
                              ::google::protobuf::Closure* done) {
  controller->SetFailed("Method GetUserAgent() not implemented.");
  done->Run();
}

void ProfileRpc::GetUserAgentMetadata(::google::protobuf::RpcController* controller,
                                      const ::ProfileId* /*request*/,
                                      ::rpc::UserAgentMetadata* /*response*/,
                                      ::google::protobuf::Closure* done) {
  controller->SetFailed("Method GetUserAgentMetadata() not implemented.");
  done->Run();
}

void ProfileRpc::WhenNetworkChanged() {
  VARNIC_FATAL("Not implemented.");
}
void ProfileRpc::OnCanAccessFile() {
  VARNIC_FATAL("Not implemented.");
}
void ProfileRpc::OnAuthenticate() {
  VARNIC_FATAL("Not implemented.");
}

}  // namespace rpc
