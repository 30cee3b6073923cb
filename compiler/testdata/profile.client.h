// Written by protoc-gen-varnic from rpc/profile/profile.proto. Changes here are lost.
#ifndef RPC_PROFILE_PROFILE_CLIENT_H_
#define RPC_PROFILE_PROFILE_CLIENT_H_

#include <google/protobuf/descriptor.h>

#include <memory>

#include "absl/status/statusor.h"
#include "absl/time/time.h"
#include "core/client/callback_answerer.h"
#include "core/client/client.h"
#include "core/client/event_subscriber.h"
#include "core/client/stream_listeners.h"
#include "core/client/typed_call.h"
#include "rpc/profile/profile.pb.h"

namespace rpc {

// The client's side of rpc.Profile: its methods, with their own types. Owns nothing; `client` must
// outlive it and whatever it started. Cheap to make and to copy.
//
// Belongs to the thread of the client's loop. Callbacks run on that loop, never inside the call
// that asked for them, and may use and destroy this object; Client::Cancel() runs a call's callback
// inside.
//
// A unary method ends in exactly one `done`, with the answer or with the status that the call
// failed with; `timeout` covers connecting too. The form that waits runs the loop until then, so
// not inside a callback.
//
// A stream is the object that its method returns, which opens at once, comes back by itself after a
// loss, and ends when it is destroyed, also inside its own callbacks.
class ProfileClient {
 public:
  explicit ProfileClient(::varnic::Client& client) : client_(client) {}

  ::varnic::Client::CallId Path(const ::ProfileId& request, ::absl::Duration timeout,
                                ::varnic::OnAnswer<::google::protobuf::StringValue> done);
  ::absl::StatusOr<::google::protobuf::StringValue> PathAndWait(const ::ProfileId& request,
                                                                ::absl::Duration timeout);
  ::varnic::Client::CallId Name(const ::ProfileId& request, ::absl::Duration timeout,
                                ::varnic::OnAnswer<::google::protobuf::StringValue> done);
  ::absl::StatusOr<::google::protobuf::StringValue> NameAndWait(const ::ProfileId& request,
                                                                ::absl::Duration timeout);
  ::varnic::Client::CallId IsIncognito(const ::ProfileId& request, ::absl::Duration timeout,
                                       ::varnic::OnAnswer<::google::protobuf::BoolValue> done);
  ::absl::StatusOr<::google::protobuf::BoolValue> IsIncognitoAndWait(const ::ProfileId& request,
                                                                     ::absl::Duration timeout);
  ::varnic::Client::CallId IsDefault(const ::ProfileId& request, ::absl::Duration timeout,
                                     ::varnic::OnAnswer<::google::protobuf::BoolValue> done);
  ::absl::StatusOr<::google::protobuf::BoolValue> IsDefaultAndWait(const ::ProfileId& request,
                                                                   ::absl::Duration timeout);
  ::varnic::Client::CallId CreateBrowser(const ::rpc::BrowserOptions& request,
                                         ::absl::Duration timeout,
                                         ::varnic::OnAnswer<::BrowserId> done);
  ::absl::StatusOr<::BrowserId> CreateBrowserAndWait(const ::rpc::BrowserOptions& request,
                                                     ::absl::Duration timeout);
  ::varnic::Client::CallId SetAcceptLanguage(const ::rpc::SetAcceptLanguageRequest& request,
                                             ::absl::Duration timeout,
                                             ::varnic::OnAnswer<::google::protobuf::Empty> done);
  ::absl::StatusOr<::google::protobuf::Empty> SetAcceptLanguageAndWait(
      const ::rpc::SetAcceptLanguageRequest& request, ::absl::Duration timeout);
  ::varnic::Client::CallId GetAcceptLanguage(
      const ::ProfileId& request, ::absl::Duration timeout,
      ::varnic::OnAnswer<::google::protobuf::StringValue> done);
  ::absl::StatusOr<::google::protobuf::StringValue> GetAcceptLanguageAndWait(
      const ::ProfileId& request, ::absl::Duration timeout);
  ::varnic::Client::CallId GetUserAgent(const ::ProfileId& request, ::absl::Duration timeout,
                                        ::varnic::OnAnswer<::google::protobuf::StringValue> done);
  ::absl::StatusOr<::google::protobuf::StringValue> GetUserAgentAndWait(const ::ProfileId& request,
                                                                        ::absl::Duration timeout);
  ::varnic::Client::CallId GetUserAgentMetadata(const ::ProfileId& request,
                                                ::absl::Duration timeout,
                                                ::varnic::OnAnswer<::rpc::UserAgentMetadata> done);
  ::absl::StatusOr<::rpc::UserAgentMetadata> GetUserAgentMetadataAndWait(const ::ProfileId& request,
                                                                         ::absl::Duration timeout);
  ::std::unique_ptr<::varnic::EventSubscriber<::rpc::NetworkChanged>> WhenNetworkChanged(
      ::varnic::EventSubscriber<::rpc::NetworkChanged>::OnEvent on_event,
      ::varnic::StreamListeners listeners = {});
  ::std::unique_ptr<::varnic::CallbackAnswerer<::rpc::CanAccessFile>> OnCanAccessFile(
      ::varnic::CallbackAnswerer<::rpc::CanAccessFile>::OnQuestion on_question,
      ::varnic::StreamListeners listeners = {});
  ::std::unique_ptr<::varnic::CallbackAnswerer<::rpc::Authenticate>> OnAuthenticate(
      ::varnic::CallbackAnswerer<::rpc::Authenticate>::OnQuestion on_question,
      ::varnic::StreamListeners listeners = {});

 private:
  static const ::google::protobuf::MethodDescriptor& MethodAt(int index);

  ::varnic::Client& client_;
};

}  // namespace rpc

#endif  // RPC_PROFILE_PROFILE_CLIENT_H_
