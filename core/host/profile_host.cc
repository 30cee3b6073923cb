#include "core/host/profile_host.h"

#include <cstdint>
#include <string>
#include <utility>

#include "core/host/call_reply.h"
#include "core/host/user_agent.h"

namespace varnic::host {
namespace {

using google::protobuf::BoolValue;
using google::protobuf::Closure;
using google::protobuf::Empty;
using google::protobuf::RpcController;
using google::protobuf::StringValue;

// Sets the value of a response that wraps a single one.
template <typename Response>
auto ValueOf(Response* response) {
  return [response](const auto& value) { response->set_value(value); };
}

}  // namespace

void ProfileHost::OnNetworkState(const rpc::NetworkChanged& state) {
  network_.Update(state);
  profiles_.OnNetworkState(state);
}

AbstractStream* ProfileHost::OpenStream(const google::protobuf::MethodDescriptor* method,
                                        StreamChannel channel) {
  if (method->output_type() == rpc::NetworkChanged::descriptor()) {
    return network_.OpenStream(this, method, std::move(channel)).release();
  }
  return ProfileRpc::OpenStream(method, std::move(channel));
}

void ProfileHost::Path(RpcController* controller, const ProfileId* request, StringValue* response,
                       Closure* done) {
  profiles_.Path(request->value(), CallReply<std::string>(controller, done, ValueOf(response)));
}

void ProfileHost::Name(RpcController* controller, const ProfileId* request, StringValue* response,
                       Closure* done) {
  profiles_.Name(request->value(), CallReply<std::string>(controller, done, ValueOf(response)));
}

void ProfileHost::IsIncognito(RpcController* controller, const ProfileId* request,
                              BoolValue* response, Closure* done) {
  profiles_.IsIncognito(request->value(), CallReply<bool>(controller, done, ValueOf(response)));
}

void ProfileHost::IsDefault(RpcController* controller, const ProfileId* request,
                            BoolValue* response, Closure* done) {
  profiles_.IsDefault(request->value(), CallReply<bool>(controller, done, ValueOf(response)));
}

void ProfileHost::CreateBrowser(RpcController* controller, const rpc::BrowserOptions* request,
                                BrowserId* response, Closure* done) {
  profiles_.CreateBrowser(*request, CallReply<int64_t>(controller, done, ValueOf(response)));
}

void ProfileHost::SetAcceptLanguage(RpcController* controller,
                                    const rpc::SetAcceptLanguageRequest* request, Empty* /*none*/,
                                    Closure* done) {
  profiles_.SetAcceptLanguage(request->profile_id().value(), request->accept_language(),
                              CallReply<Done>(controller, done, [](Done) {}));
}

void ProfileHost::GetAcceptLanguage(RpcController* controller, const ProfileId* request,
                                    StringValue* response, Closure* done) {
  profiles_.GetAcceptLanguage(request->value(),
                              CallReply<std::string>(controller, done, ValueOf(response)));
}

void ProfileHost::GetUserAgent(RpcController* controller, const ProfileId* request,
                               StringValue* response, Closure* done) {
  profiles_.GetUserAgent(
      request->value(),
      CallReply<UserAgent>(controller, done, [response](const UserAgent& user_agent) {
        response->set_value(user_agent.text);
      }));
}

void ProfileHost::GetUserAgentMetadata(RpcController* controller, const ProfileId* request,
                                       rpc::UserAgentMetadata* response, Closure* done) {
  profiles_.GetUserAgent(
      request->value(),
      CallReply<UserAgent>(controller, done, [response](const UserAgent& user_agent) {
        *response = user_agent.metadata;
      }));
}

}  // namespace varnic::host
