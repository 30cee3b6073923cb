#include "core/host/profile_host.h"

#include <cstdint>
#include <functional>
#include <utility>

#include "absl/strings/str_cat.h"
#include "core/host/browser_version.h"
#include "core/server/server_controller.h"

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

ProfileHost::ProfileHost(UserDataDir directory, ProfileHostOptions options,
                         TaskThread::PostFunction post)
    : directory_(std::move(directory)),
      browser_(std::move(options.browser)),
      user_agent_(std::move(options.user_agent)),
      tasks_(std::move(post)) {}

ProfileHost::~ProfileHost() {
  is_ending_ = true;
}

AbstractStream* ProfileHost::OpenStream(const google::protobuf::MethodDescriptor* method,
                                        StreamChannel channel) {
  if (method->output_type() == rpc::NetworkChanged::descriptor()) {
    return network_.OpenStream(this, method, std::move(channel)).release();
  }
  return ProfileRpc::OpenStream(method, std::move(channel));
}

template <typename Value, typename Fill>
void ProfileHost::Answer(RpcController* controller, Closure* done,
                         std::function<absl::StatusOr<Value>()> work, Fill fill) {
  tasks_.Run(
      [this, work = std::move(work)]() -> absl::StatusOr<Value> {
        if (is_ending_) return absl::UnavailableError("the host is shutting down");
        return work();
      },
      [controller, done, fill](const absl::StatusOr<Value>& value) {
        if (value.ok()) {
          fill(*value);
        } else {
          ServerController::From(controller).SetStatus(value.status());
        }
        done->Run();
      });
}

void ProfileHost::Path(RpcController* controller, const ProfileId* request, StringValue* response,
                       Closure* done) {
  Answer<std::string>(
      controller, done, [this, id = request->value()] { return directory_.Path(id); },
      ValueOf(response));
}

void ProfileHost::Name(RpcController* controller, const ProfileId* request, StringValue* response,
                       Closure* done) {
  Answer<std::string>(
      controller, done, [this, id = request->value()] { return directory_.Name(id); },
      ValueOf(response));
}

void ProfileHost::IsIncognito(RpcController* controller, const ProfileId* request,
                              BoolValue* response, Closure* done) {
  Answer<std::string>(
      controller, done, [this, id = request->value()] { return directory_.Resolve(id); },
      [response](const std::string&) { response->set_value(false); });
}

void ProfileHost::IsDefault(RpcController* controller, const ProfileId* request,
                            BoolValue* response, Closure* done) {
  Answer<bool>(
      controller, done, [this, id = request->value()] { return directory_.IsDefault(id); },
      ValueOf(response));
}

void ProfileHost::CreateBrowser(RpcController* controller, const rpc::BrowserOptions* request,
                                BrowserId* response, Closure* done) {
  Answer<int64_t>(
      controller, done,
      [this, id = request->profile_id().value()]() -> absl::StatusOr<int64_t> {
        const absl::Status status = directory_.Resolve(id).status();
        if (!status.ok()) return status;
        return absl::FailedPreconditionError(
            "no browser is configured: this host serves the profiles' files alone; start a browser "
            "on its user-data directory to open a window");
      },
      ValueOf(response));
}

void ProfileHost::SetAcceptLanguage(RpcController* controller,
                                    const rpc::SetAcceptLanguageRequest* request, Empty* /*none*/,
                                    Closure* done) {
  Answer<bool>(
      controller, done,
      [this, id = request->profile_id().value(),
       list = request->accept_language()]() -> absl::StatusOr<bool> {
        const absl::Status status = directory_.SetAcceptLanguage(id, list);
        if (!status.ok()) return status;
        return true;
      },
      [](bool) {});
}

void ProfileHost::GetAcceptLanguage(RpcController* controller, const ProfileId* request,
                                    StringValue* response, Closure* done) {
  Answer<std::string>(
      controller, done, [this, id = request->value()] { return directory_.GetAcceptLanguage(id); },
      ValueOf(response));
}

void ProfileHost::GetUserAgent(RpcController* controller, const ProfileId* request,
                               StringValue* response, Closure* done) {
  Answer<UserAgent>(
      controller, done, [this, id = request->value()] { return UserAgentOfProfile(id); },
      [response](const UserAgent& user_agent) { response->set_value(user_agent.text); });
}

void ProfileHost::GetUserAgentMetadata(RpcController* controller, const ProfileId* request,
                                       rpc::UserAgentMetadata* response, Closure* done) {
  Answer<UserAgent>(
      controller, done, [this, id = request->value()] { return UserAgentOfProfile(id); },
      [response](const UserAgent& user_agent) { *response = user_agent.metadata; });
}

absl::StatusOr<UserAgent> ProfileHost::UserAgentOfProfile(const std::string& id) {
  const absl::Status status = directory_.Resolve(id).status();
  if (!status.ok()) return status;
  if (user_agent_.has_value()) return *user_agent_;
  const absl::StatusOr<BrowserVersion> version = LookUpBrowserVersion(browser_);
  if (!version.ok()) {
    return absl::Status(
        version.status().code(),
        absl::StrCat("the user agent is not known: ", version.status().message(),
                     "; name the browser with --browser, or the user agent with --user-agent"));
  }
  user_agent_ = UserAgentOf(*version);
  return *user_agent_;
}

}  // namespace varnic::host
