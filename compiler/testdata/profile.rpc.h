// Written by protoc-gen-varnic from rpc/profile/profile.proto. Changes here are lost.
#ifndef RPC_PROFILE_PROFILE_RPC_H_
#define RPC_PROFILE_PROFILE_RPC_H_

#include <google/protobuf/descriptor.h>
#include <google/protobuf/service.h>

#include "core/common/rpc/abstract_stream.h"
#include "core/common/rpc/service.h"
#include "rpc/profile/profile.pb.h"

namespace rpc {

// The server's side of rpc.Profile: derive from it and override what the host serves. A unary
// method that is not overridden fails its call; a call is dispatched by the method's index alone.
//
// An override fills the response or fails the controller, and runs the closure exactly once in
// either case, now or later, on the RPC thread. Request, response and controller stay valid until
// then.
class ProfileRpc : public ::varnic::Service {
 public:
  ProfileRpc() = default;
  ~ProfileRpc() override = default;

  // Any thread.
  static const ::google::protobuf::ServiceDescriptor* descriptor();

  const ::google::protobuf::ServiceDescriptor* GetDescriptor() override;
  void CallMethod(const ::google::protobuf::MethodDescriptor* method,
                  ::google::protobuf::RpcController* controller,
                  const ::google::protobuf::Message* request, ::google::protobuf::Message* response,
                  ::google::protobuf::Closure* done) override;
  const ::google::protobuf::Message& GetRequestPrototype(
      const ::google::protobuf::MethodDescriptor* method) const override;
  const ::google::protobuf::Message& GetResponsePrototype(
      const ::google::protobuf::MethodDescriptor* method) const override;
  ::varnic::AbstractStream* OpenStream(const ::google::protobuf::MethodDescriptor* method,
                                       ::varnic::StreamChannel channel) override;

  virtual void Path(::google::protobuf::RpcController* controller, const ::ProfileId* request,
                    ::google::protobuf::StringValue* response, ::google::protobuf::Closure* done);
  virtual void Name(::google::protobuf::RpcController* controller, const ::ProfileId* request,
                    ::google::protobuf::StringValue* response, ::google::protobuf::Closure* done);
  virtual void IsIncognito(::google::protobuf::RpcController* controller,
                           const ::ProfileId* request, ::google::protobuf::BoolValue* response,
                           ::google::protobuf::Closure* done);
  virtual void IsDefault(::google::protobuf::RpcController* controller, const ::ProfileId* request,
                         ::google::protobuf::BoolValue* response,
                         ::google::protobuf::Closure* done);
  virtual void CreateBrowser(::google::protobuf::RpcController* controller,
                             const ::rpc::BrowserOptions* request, ::BrowserId* response,
                             ::google::protobuf::Closure* done);
  virtual void SetAcceptLanguage(::google::protobuf::RpcController* controller,
                                 const ::rpc::SetAcceptLanguageRequest* request,
                                 ::google::protobuf::Empty* response,
                                 ::google::protobuf::Closure* done);
  virtual void GetAcceptLanguage(::google::protobuf::RpcController* controller,
                                 const ::ProfileId* request,
                                 ::google::protobuf::StringValue* response,
                                 ::google::protobuf::Closure* done);
  virtual void GetUserAgent(::google::protobuf::RpcController* controller,
                            const ::ProfileId* request, ::google::protobuf::StringValue* response,
                            ::google::protobuf::Closure* done);
  virtual void GetUserAgentMetadata(::google::protobuf::RpcController* controller,
                                    const ::ProfileId* request, ::rpc::UserAgentMetadata* response,
                                    ::google::protobuf::Closure* done);

  // Never called: OpenStream() makes the streams.
  virtual void WhenNetworkChanged();
  virtual void OnCanAccessFile();
  virtual void OnAuthenticate();
};

}  // namespace rpc

#endif  // RPC_PROFILE_PROFILE_RPC_H_
