#include "core/host/browser_host_service.h"

#include <string>
#include <utility>

#include "base/logging.h"
#include "core/host/call_reply.h"
#include "core/host/short_text.h"
#include "core/net/utf8_text.h"

namespace varnic::host {
namespace {

using google::protobuf::Closure;
using google::protobuf::Empty;
using google::protobuf::RpcController;
using rpc::BrowserInfo;
using rpc::ProfileInfo;
using rpc::ProfileList;
using rpc::ProfilesChanged;

void MakeReadable(std::string& text) {
  if (!net::IsUtf8(text)) text = net::EscapeInvalidUtf8(text);
}

void MakeReadable(BrowserInfo& browser) {
  for (std::string* text : {browser.mutable_url(), browser.mutable_title()}) {
    text->resize(BeginningOf(*text, kMaxPageTextBytes).size());
    MakeReadable(*text);
  }
}

void MakeReadable(ProfileInfo& profile) {
  MakeReadable(*profile.mutable_id()->mutable_value());
  MakeReadable(*profile.mutable_name());
  MakeReadable(*profile.mutable_path());
  for (BrowserInfo& browser : *profile.mutable_browsers()) MakeReadable(browser);
}

void MakeReadable(ProfileList& list) {
  for (ProfileInfo& profile : *list.mutable_profiles()) MakeReadable(profile);
}

ProfilesChanged WhatSubscribersSee(const ProfileList& list, const ProfileId& key) {
  ProfilesChanged event;
  for (const ProfileInfo& profile : list.profiles()) {
    if (key.value().empty() || profile.id().value() == key.value()) *event.add_profiles() = profile;
  }
  return event;
}

absl::StatusOr<rpc::BrowserList> BrowsersOf(const ProfileList& list, const std::string& id) {
  rpc::BrowserList browsers;
  bool is_known = id.empty();
  for (const ProfileInfo& profile : list.profiles()) {
    if (!id.empty() && profile.id().value() != id) continue;
    is_known = true;
    browsers.mutable_browsers()->MergeFrom(profile.browsers());
  }
  if (is_known) return browsers;
  return NoSuchProfile(id);
}

}  // namespace

BrowserHostService::BrowserHostService(Profiles& profiles, Scheduler& scheduler)
    : profiles_(profiles),
      scheduler_(scheduler),
      // A subscriber hears of what nobody has told of, too, such as a file that has changed.
      publisher_(WhatSubscribersSee, [this](const ProfileId& /*key*/) { Refresh(); }) {
  profiles_.SetChangeListener(lifetime_.Guard([this] { Refresh(); }));
  Refresh();
}

BrowserHostService::~BrowserHostService() {
  profiles_.SetChangeListener(nullptr);
}

AbstractStream* BrowserHostService::OpenStream(const google::protobuf::MethodDescriptor* method,
                                               StreamChannel channel) {
  if (method->output_type() == ProfilesChanged::descriptor()) {
    return publisher_.OpenStream(this, method, std::move(channel)).release();
  }
  return BrowserHostRpc::OpenStream(method, std::move(channel));
}

void BrowserHostService::ListProfiles(RpcController* controller, const Empty* /*request*/,
                                      ProfileList* response, Closure* done) {
  profiles_.List(CallReply<ProfileList>(controller, done, [response](ProfileList list) {
    MakeReadable(list);
    *response = std::move(list);
  }));
}

void BrowserHostService::CreateProfile(RpcController* controller,
                                       const rpc::CreateProfileRequest* request,
                                       ProfileInfo* response, Closure* done) {
  profiles_.CreateProfile(request->name(),
                          CallReply<ProfileInfo>(controller, done, [response](ProfileInfo profile) {
                            MakeReadable(profile);
                            *response = std::move(profile);
                          }));
}

void BrowserHostService::DeleteProfile(RpcController* controller, const ProfileId* request,
                                       Empty* /*response*/, Closure* done) {
  profiles_.DeleteProfile(request->value(), CallReply<Done>(controller, done, [](Done) {}));
}

void BrowserHostService::ListBrowsers(RpcController* controller, const ProfileId* request,
                                      rpc::BrowserList* response, Closure* done) {
  auto reply = CallReply<rpc::BrowserList>(
      controller, done, [response](rpc::BrowserList list) { *response = std::move(list); });
  profiles_.List(
      [id = request->value(), reply = std::move(reply)](absl::StatusOr<ProfileList> list) {
        if (!list.ok()) return reply(list.status());
        MakeReadable(*list);
        reply(BrowsersOf(*list, id));
      });
}

void BrowserHostService::CloseBrowser(RpcController* controller, const BrowserId* request,
                                      Empty* /*response*/, Closure* done) {
  profiles_.CloseBrowser(request->value(), CallReply<Done>(controller, done, [](Done) {}));
}

void BrowserHostService::Refresh() {
  if (listing_ == Listing::kAsked) is_outdated_ = true;
  if (listing_ != Listing::kNone) return;
  listing_ = Listing::kPosted;
  scheduler_.Post(lifetime_.Guard([this] { AskForList(); }));
}

void BrowserHostService::AskForList() {
  listing_ = Listing::kAsked;
  is_outdated_ = false;
  retry_.reset();
  profiles_.List(
      lifetime_.Guard([this](absl::StatusOr<ProfileList> list) { OnListed(std::move(list)); }));
}

void BrowserHostService::OnListed(absl::StatusOr<ProfileList> list) {
  listing_ = Listing::kNone;
  if (is_outdated_) Refresh();
  if (!list.ok()) return OnListFailed(list.status());
  has_failed_ = false;
  MakeReadable(*list);
  publisher_.Update(*std::move(list));
}

void BrowserHostService::OnListFailed(const absl::Status& status) {
  if (!std::exchange(has_failed_, true) &&
      logging::ShouldCreateLogMessage(logging::LOGGING_WARNING)) {
    logging::LogMessage(__FILE__, __LINE__, logging::LOGGING_WARNING).stream()
        << "The profiles cannot be listed for those who watch them: " << status;
  }
  retry_ = scheduler_.RunAfter(kRetryTime, [this] { Refresh(); });
}

}  // namespace varnic::host
