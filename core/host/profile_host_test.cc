#include "core/host/profile_host.h"

#include <google/protobuf/stubs/callback.h>

#include <cstddef>
#include <memory>
#include <string>
#include <utility>

#include "absl/status/status.h"
#include "core/common/rpc/stream/event_stream.h"
#include "core/common/rpc/testing/recording_channel.h"
#include "core/host/file_profiles.h"
#include "core/host/testing/post_queue.h"
#include "core/host/testing/temporary_folder.h"
#include "core/host/user_agent.h"
#include "core/host/user_data_dir.h"
#include "core/server/server_controller.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "rpc/event_subscription.pb.h"
#include "rpc/transport/stream_message.pb.h"

namespace varnic::host {
namespace {

using ::testing::HasSubstr;
using testing::PostQueue;
using testing::TemporaryFolder;

// A method of the host with its request and response types.
template <typename Request, typename Response>
using Method = void (ProfileHost::*)(google::protobuf::RpcController*, const Request*, Response*,
                                     google::protobuf::Closure*);

// One call, as a server makes it and keeps it until the closure has run.
template <typename Request, typename Response>
struct Call {
  void Start(ProfileHost& host, Method<Request, Response> method) {
    (host.*method)(&controller, &request, &response,
                   google::protobuf::NewCallback(this, &Call::OnDone));
  }
  void OnDone() { ++completions; }

  ServerController controller;
  Request request;
  Response response;
  int completions = 0;
};

using TextCall = Call<ProfileId, google::protobuf::StringValue>;
using FlagCall = Call<ProfileId, google::protobuf::BoolValue>;

class ProfileHostTest : public ::testing::Test {
 protected:
  ProfileHostTest() {
    folder_.Write("Local State",
                  R"({"profile":{"info_cache":{"Default":{"name":"Ada"},"Other":{}}}})");
    folder_.Write("Default/Preferences", "{}");
    folder_.Write("Other/Preferences", "{}");
  }

  void MakeHost() {
    absl::StatusOr<UserDataDir> directory = UserDataDir::Open(folder_.path());
    ASSERT_TRUE(directory.ok()) << directory.status();
    FileProfilesOptions options;
    options.user_agent = UserAgentFromText("Robot Chrome/99.1.2.3").value();
    profiles_ =
        std::make_unique<FileProfiles>(*std::move(directory), std::move(options), queue_.AsPost());
    host_ = std::make_unique<ProfileHost>(*profiles_);
  }

  template <typename Request, typename Response>
  void Finish(Call<Request, Response>& call, Method<Request, Response> method) {
    if (host_ == nullptr) MakeHost();
    call.Start(*host_, method);
    EXPECT_EQ(call.completions, 0);
    queue_.RunNext();
    EXPECT_EQ(call.completions, 1);
  }

  // The value that `method` answers for the profile `id`, or the failure.
  std::string TextOf(const std::string& id,
                     Method<ProfileId, google::protobuf::StringValue> method) {
    TextCall call;
    call.request.set_value(id);
    Finish(call, method);
    return call.controller.Failed() ? call.controller.status().ToString() : call.response.value();
  }

  bool FlagOf(const std::string& id, Method<ProfileId, google::protobuf::BoolValue> method) {
    FlagCall call;
    call.request.set_value(id);
    // Must be overwritten when the answer is no.
    call.response.set_value(true);
    Finish(call, method);
    EXPECT_FALSE(call.controller.Failed()) << call.controller.status();
    return call.response.value();
  }

  absl::Status SetLanguages(const std::string& id, const std::string& list) {
    Call<rpc::SetAcceptLanguageRequest, google::protobuf::Empty> call;
    call.request.mutable_profile_id()->set_value(id);
    call.request.set_accept_language(list);
    Finish(call, &ProfileHost::SetAcceptLanguage);
    return call.controller.status();
  }

  TemporaryFolder folder_;
  PostQueue queue_;
  std::unique_ptr<FileProfiles> profiles_;
  std::unique_ptr<ProfileHost> host_;
};

TEST_F(ProfileHostTest, AnswersWithWhatTheFilesSay) {
  EXPECT_EQ(TextOf("", &ProfileHost::Path), folder_.Path("Default"));
  EXPECT_EQ(TextOf("Other", &ProfileHost::Path), folder_.Path("Other"));
  EXPECT_EQ(TextOf("", &ProfileHost::Name), "Ada");
  EXPECT_EQ(TextOf("", &ProfileHost::GetAcceptLanguage), "en-US,en");
  EXPECT_TRUE(FlagOf("Default", &ProfileHost::IsDefault));
  EXPECT_FALSE(FlagOf("Other", &ProfileHost::IsDefault));
  EXPECT_FALSE(FlagOf("Other", &ProfileHost::IsIncognito));
}

TEST_F(ProfileHostTest, SetsLanguagesOfOneProfile) {
  EXPECT_TRUE(SetLanguages("Other", "fr-FR, fr").ok());

  EXPECT_EQ(TextOf("Other", &ProfileHost::GetAcceptLanguage), "fr-FR,fr");
  EXPECT_EQ(TextOf("Default", &ProfileHost::GetAcceptLanguage), "en-US,en");
}

TEST_F(ProfileHostTest, RefusesBadLanguages) {
  const absl::Status status = SetLanguages("", "de;q=0.9");

  EXPECT_TRUE(absl::IsInvalidArgument(status)) << status;
  EXPECT_THAT(std::string(status.message()), HasSubstr("quality values are not allowed"));
}

TEST_F(ProfileHostTest, UnknownProfileFailsEveryMethod) {
  const std::string expected = "NOT_FOUND: there is no profile \"Nobody\"";
  Call<rpc::BrowserOptions, BrowserId> create;
  create.request.mutable_profile_id()->set_value("Nobody");
  Call<ProfileId, rpc::UserAgentMetadata> metadata;
  metadata.request.set_value("Nobody");

  EXPECT_EQ(TextOf("Nobody", &ProfileHost::Path), expected);
  EXPECT_EQ(TextOf("Nobody", &ProfileHost::Name), expected);
  EXPECT_EQ(TextOf("Nobody", &ProfileHost::GetAcceptLanguage), expected);
  EXPECT_EQ(TextOf("Nobody", &ProfileHost::GetUserAgent), expected);
  EXPECT_EQ(SetLanguages("Nobody", "fr").ToString(), expected);
  for (const auto method : {&ProfileHost::IsDefault, &ProfileHost::IsIncognito}) {
    FlagCall call;
    call.request.set_value("Nobody");
    Finish(call, method);
    EXPECT_EQ(call.controller.status().ToString(), expected);
  }
  Finish(create, &ProfileHost::CreateBrowser);
  EXPECT_EQ(create.controller.status().ToString(), expected);
  Finish(metadata, &ProfileHost::GetUserAgentMetadata);
  EXPECT_EQ(metadata.controller.status().ToString(), expected);
}

TEST_F(ProfileHostTest, CreateBrowserSaysThatNoneIsConfigured) {
  Call<rpc::BrowserOptions, BrowserId> call;

  Finish(call, &ProfileHost::CreateBrowser);

  EXPECT_TRUE(absl::IsFailedPrecondition(call.controller.status())) << call.controller.status();
  EXPECT_THAT(call.controller.ErrorText(), HasSubstr("no browser is configured"));
}

TEST_F(ProfileHostTest, TellsTheUserAgentAsTextAndAsClientHints) {
  Call<ProfileId, rpc::UserAgentMetadata> call;

  Finish(call, &ProfileHost::GetUserAgentMetadata);

  EXPECT_EQ(TextOf("Other", &ProfileHost::GetUserAgent), "Robot Chrome/99.1.2.3");
  EXPECT_EQ(call.response.full_version(), "99.1.2.3");
}

TEST_F(ProfileHostTest, CallsOutliveTheHostAndItsProfiles) {
  constexpr size_t kCalls = 50;
  MakeHost();
  TextCall calls[kCalls];
  for (TextCall& call : calls) call.Start(*host_, &ProfileHost::Name);

  host_ = nullptr;
  profiles_ = nullptr;

  ASSERT_EQ(queue_.size(), kCalls);
  for (TextCall& call : calls) {
    queue_.RunNext();
    EXPECT_EQ(call.completions, 1);
    const bool was_answered = !call.controller.Failed() && call.response.value() == "Ada";
    EXPECT_TRUE(was_answered || absl::IsUnavailable(call.controller.status()));
  }
}

TEST_F(ProfileHostTest, CallThatIsOpenWhenTheHostGoesIsAnswered) {
  MakeHost();
  TextCall call;
  call.Start(*host_, &ProfileHost::Name);

  host_ = nullptr;
  queue_.RunNext();

  EXPECT_EQ(call.completions, 1);
  EXPECT_EQ(call.response.value(), "Ada");
}

TEST_F(ProfileHostTest, ServesCallsByTheirDescriptor) {
  MakeHost();
  TextCall call;
  const auto* method = rpc::ProfileRpc::descriptor()->FindMethodByName("Name");

  host_->CallMethod(method, &call.controller, &call.request, &call.response,
                    google::protobuf::NewCallback(&call, &TextCall::OnDone));
  queue_.RunNext();

  EXPECT_EQ(call.completions, 1);
  EXPECT_EQ(call.response.value(), "Ada");
}

TEST_F(ProfileHostTest, StreamsThatShareAKeyLeaveTheRegistryWhenTheyEnd) {
  MakeHost();
  const auto* method = rpc::ProfileRpc::descriptor()->FindMethodByName("WhenNetworkChanged");
  ::varnic::testing::RecordingChannel channels[2];
  ProfileId key;
  key.set_value("shared");

  std::unique_ptr<AbstractStream> streams[2];

  for (int i = 0; i < 2; ++i) {
    streams[i].reset(host_->OpenStream(method, channels[i].Open()));
    static_cast<EventStream<rpc::NetworkChanged>&>(*streams[i]).Subscribe(key);
  }
  for (auto& stream : streams) stream->OnCompleted();

  EXPECT_THAT(EventStream<rpc::NetworkChanged>::stream_map_, ::testing::IsEmpty());
}

TEST_F(ProfileHostTest, NetworkStateGoesToWhoeverSubscribesToIt) {
  MakeHost();
  const auto* method = rpc::ProfileRpc::descriptor()->FindMethodByName("WhenNetworkChanged");
  ::varnic::testing::RecordingChannel channel;
  const std::unique_ptr<AbstractStream> stream(host_->OpenStream(method, channel.Open()));
  rpc::EventSubscription subscription;
  subscription.mutable_key()->set_value("Other");
  subscription.set_action(rpc::EventSubscription::SUBSCRIBE);
  rpc::transport::StreamMessage message;
  message.set_payload(subscription.SerializeAsString());
  rpc::NetworkChanged state;

  host_->OnNetworkState(state);
  stream->OnNext(&message);
  state.set_online(true);
  host_->OnNetworkState(state);

  ASSERT_EQ(channel.sent().size(), 2u);
  rpc::NetworkChanged event;
  EXPECT_TRUE(event.ParseFromString(channel.sent()[1].payload()));
  EXPECT_TRUE(event.online());
  EXPECT_EQ(event.profile_id().value(), "Other");
  stream->OnCompleted();
}

TEST_F(ProfileHostTest, OtherStreamsAreThoseOfTheSkeleton) {
  MakeHost();
  const auto* method = rpc::ProfileRpc::descriptor()->FindMethodByName("OnCanAccessFile");
  ::varnic::testing::RecordingChannel channel;

  const std::unique_ptr<AbstractStream> stream(host_->OpenStream(method, channel.Open()));
  ASSERT_NE(stream, nullptr);
  stream->OnCompleted();

  EXPECT_EQ(channel.completions(), 1);
}

}  // namespace
}  // namespace varnic::host
