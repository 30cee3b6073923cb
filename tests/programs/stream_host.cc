// A host whose unary methods drive its streams, so that a client that is not ours can be tested
// from both ends, and as a process of its own.
// See serve_program.h for its arguments.

#include <functional>
#include <string>
#include <utility>

#include "absl/strings/str_cat.h"
#include "absl/time/time.h"
#include "core/common/rpc/stream/callback_caller.h"
#include "core/common/rpc/stream/event_publisher.h"
#include "core/server/rpc_server.h"
#include "core/server/server_controller.h"
#include "rpc/profile/profile.rpc.h"
#include "tests/programs/serve_program.h"

namespace varnic {
namespace {

using google::protobuf::BoolValue;
using google::protobuf::Closure;
using google::protobuf::RpcController;
using google::protobuf::StringValue;

constexpr absl::Duration kPatience = absl::Seconds(30);

// Publishes and asks under the profile that it is called about:
//
//   Name                  publishes {online: true}; says how many streams took it
//   SetAcceptLanguage     publishes {interfaces: [{name: <the languages>}]}
//   Path                  asks whether "/etc/motd" may be read: "allowed" or "refused"
//   CreateBrowser         asks whether the file `url` may be read: browser 1 or 0
//   GetAcceptLanguage     asks about "/etc/motd", for a millisecond
//   GetUserAgent          asks for credentials: "user:password" or "cancel"; asks again, for
//   another
//                         realm, as long as the password is "wrong"
//   IsDefault             whether it is the default profile
//   IsIncognito           whether the client says so, in its metadata
//   GetUserAgentMetadata  counts what is there, as brands with their numbers for versions
//
// A question that gets no answer fails the call with the status that it ended with.
class StreamHost : public rpc::ProfileRpc {
 public:
  explicit StreamHost(RpcServer& server)
      : server_(server), files_(server.scheduler()), credentials_(server.scheduler()) {}

  void Name(RpcController* /*controller*/, const ProfileId* request, StringValue* response,
            Closure* done) override {
    rpc::NetworkChanged event;
    event.set_online(true);
    response->set_value(absl::StrCat(network_.Publish(*request, event)));
    done->Run();
  }

  void SetAcceptLanguage(RpcController* /*controller*/,
                         const rpc::SetAcceptLanguageRequest* request,
                         google::protobuf::Empty* /*response*/, Closure* done) override {
    rpc::NetworkChanged event;
    event.add_interfaces()->set_name(request->accept_language());
    network_.Publish(request->profile_id(), event);
    done->Run();
  }

  void Path(RpcController* controller, const ProfileId* request, StringValue* response,
            Closure* done) override {
    AskForMotd(controller, *request, kPatience, response, done);
  }

  void GetAcceptLanguage(RpcController* controller, const ProfileId* request, StringValue* response,
                         Closure* done) override {
    AskForMotd(controller, *request, absl::Milliseconds(1), response, done);
  }

  void CreateBrowser(RpcController* controller, const rpc::BrowserOptions* request,
                     BrowserId* response, Closure* done) override {
    AskForFile(controller, request->profile_id(), request->url(), kPatience, done,
               [response](bool allow) { response->set_value(allow ? 1 : 0); });
  }

  void GetUserAgent(RpcController* controller, const ProfileId* request, StringValue* response,
                    Closure* done) override {
    AskForCredentials(controller, *request, /*attempt=*/1, response, done);
  }

  void IsDefault(RpcController* /*controller*/, const ProfileId* request, BoolValue* response,
                 Closure* done) override {
    response->set_value(request->value().empty());
    done->Run();
  }

  void IsIncognito(RpcController* controller, const ProfileId* /*request*/, BoolValue* response,
                   Closure* done) override {
    const auto& metadata = ServerController::From(controller).metadata();
    response->set_value(metadata.Find("x-incognito") == "yes");
    done->Run();
  }

  void GetUserAgentMetadata(RpcController* /*controller*/, const ProfileId* request,
                            rpc::UserAgentMetadata* response, Closure* done) override {
    const auto subscribers = EventStream<rpc::NetworkChanged>::stream_map_.find(request);
    const bool none = subscribers == EventStream<rpc::NetworkChanged>::stream_map_.end();
    Count("subscribers", none ? 0 : subscribers->second.size(), *response);
    Count("file answerers", CallbackStream<rpc::CanAccessFile>::stream_map_.count(request),
          *response);
    Count("credentials answerers", CallbackStream<rpc::Authenticate>::stream_map_.count(request),
          *response);
    Count("streams", server_.streams().open_streams(), *response);
    Count("questions", files_.open_calls() + credentials_.open_calls(), *response);
    done->Run();
  }

 private:
  static void Count(const char* what, std::size_t number, rpc::UserAgentMetadata& counts) {
    auto& count = *counts.add_brands();
    count.set_brand(what);
    count.set_version(absl::StrCat(number));
  }

  static std::function<void(const absl::Status&)> Fail(RpcController* controller, Closure* done) {
    return [controller, done](const absl::Status& status) {
      ServerController::From(controller).SetStatus(status);
      done->Run();
    };
  }

  void AskForFile(RpcController* controller, const ProfileId& profile, const std::string& path,
                  absl::Duration timeout, Closure* done, std::function<void(bool)> answer) {
    rpc::CanAccessFile::Request question;
    question.set_path(path);
    question.set_access(rpc::CanAccessFile::READ);
    const auto on_response = [answer, done](const rpc::CanAccessFile::Response& response) {
      answer(response.allow());
      done->Run();
    };
    files_.Call(profile, question, on_response, Fail(controller, done), timeout);
  }

  void AskForCredentials(RpcController* controller, const ProfileId& profile, int attempt,
                         StringValue* response, Closure* done) {
    rpc::Authenticate::Request question;
    question.set_scheme("basic");
    question.set_realm(absl::StrCat("Realm", attempt));
    question.set_first_attempt(attempt == 1);
    const auto on_response = [=](const rpc::Authenticate::Response& answer) {
      if (answer.password() == "wrong") {
        AskForCredentials(controller, profile, attempt + 1, response, done);
        return;
      }
      response->set_value(
          answer.cancel() ? "cancel" : absl::StrCat(answer.username(), ":", answer.password()));
      done->Run();
    };
    credentials_.Call(profile, question, on_response, Fail(controller, done), kPatience);
  }

  void AskForMotd(RpcController* controller, const ProfileId& profile, absl::Duration timeout,
                  StringValue* response, Closure* done) {
    AskForFile(controller, profile, "/etc/motd", timeout, done,
               [response](bool allow) { response->set_value(allow ? "allowed" : "refused"); });
  }

  RpcServer& server_;
  EventPublisher<rpc::NetworkChanged> network_;
  CallbackCaller<rpc::CanAccessFile> files_;
  CallbackCaller<rpc::Authenticate> credentials_;
};

}  // namespace
}  // namespace varnic

int main(int argc, char** argv) {
  varnic::ServerOptions options;
  // For the long questions and events.
  options.streams.outbound.max_bytes = 8 << 20;
  options.serve_reflection = true;
  varnic::RpcServer server(options);
  varnic::StreamHost host(server);
  server.AddService(host);
  return varnic::ServeProgram(server, argc, argv);
}
