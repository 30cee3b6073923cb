#include "core/host/browser_host_service.h"

#include <google/protobuf/stubs/callback.h>

#include <memory>
#include <string>
#include <vector>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "core/common/rpc/stream/event_stream.h"
#include "core/common/rpc/testing/fake_scheduler.h"
#include "core/common/rpc/testing/recording_channel.h"
#include "core/host/testing/fake_profiles.h"
#include "core/server/server_controller.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "rpc/event_subscription.pb.h"

namespace varnic::host {
namespace {

using rpc::EventSubscription;
using rpc::ProfilesChanged;
using ::testing::ElementsAre;
using testing::FakeProfiles;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

// "default[1 a, 2 b] profile-1[]": the profiles with the numbers and addresses of their browsers.
template <class List>
std::string Describe(const List& profiles) {
  std::string text;
  for (const rpc::ProfileInfo& profile : profiles) {
    absl::StrAppend(&text, text.empty() ? "" : " ", profile.id().value(), "[");
    for (int i = 0; i < profile.browsers_size(); ++i) {
      absl::StrAppend(&text, i == 0 ? "" : ", ", profile.browsers(i).id().value(), " ",
                      profile.browsers(i).url());
    }
    text += "]";
  }
  return text;
}

template <class Request, class Response>
using Method = void (BrowserHostService::*)(google::protobuf::RpcController*, const Request*,
                                            Response*, google::protobuf::Closure*);

// One call, as a server makes it and keeps it until the closure has run.
template <class Request, class Response>
struct Call {
  void Start(BrowserHostService& service, Method<Request, Response> method) {
    (service.*method)(&controller, &request, &response,
                      google::protobuf::NewCallback(this, &Call::OnDone));
  }
  void OnDone() { ++completions; }

  ServerController controller;
  Request request;
  Response response;
  int completions = 0;
};

// A client's stream.
struct Client {
  // What has come, as "KEY: PROFILES".
  std::vector<std::string> Events() const {
    std::vector<std::string> events;
    for (const auto& message : channel.sent()) {
      ProfilesChanged event;
      EXPECT_TRUE(event.ParseFromString(message.payload()));
      EXPECT_TRUE(event.has_profile_id());
      events.push_back(event.profile_id().value() + ": " + Describe(event.profiles()));
    }
    return events;
  }

  void Subscribe(const std::string& key) {
    EventSubscription subscription;
    subscription.mutable_key()->set_value(key);
    subscription.set_action(EventSubscription::SUBSCRIBE);
    rpc::transport::StreamMessage message;
    message.set_payload(subscription.SerializeAsString());
    stream->OnNext(&message);
  }

  ::varnic::testing::RecordingChannel channel;
  std::unique_ptr<AbstractStream> stream;
};

class BrowserHostServiceTest : public ::testing::Test {
 protected:
  BrowserHostServiceTest() {
    const auto* method = rpc::BrowserHostRpc::descriptor()->FindMethodByName("WhenProfilesChanged");
    client_.stream.reset(service_->OpenStream(method, client_.channel.Open()));
  }
  ~BrowserHostServiceTest() override {
    if (client_.stream != nullptr) client_.stream->OnCompleted();
    EXPECT_THAT(EventStream<ProfilesChanged>::stream_map_, IsEmpty());
  }

  template <class Request, class Response>
  absl::Status Finish(Call<Request, Response>& call, Method<Request, Response> method) {
    call.Start(*service_, method);
    EXPECT_EQ(call.completions, 1);
    return call.controller.status();
  }

  int64_t OpenBrowser(const std::string& profile, const std::string& url, bool incognito = false) {
    rpc::BrowserOptions options;
    options.mutable_profile_id()->set_value(profile);
    options.set_url(url);
    options.set_incognito(incognito);
    int64_t browser = 0;
    profiles_.CreateBrowser(options, [&](absl::StatusOr<int64_t> id) { browser = *id; });
    return browser;
  }

  void CreateProfile() {
    profiles_.CreateProfile("", [](const auto&) {});
  }

  std::string BrowsersOf(const std::string& profile) {
    Call<ProfileId, rpc::BrowserList> call;
    call.request.set_value(profile);
    const absl::Status status = Finish(call, &BrowserHostService::ListBrowsers);
    if (!status.ok()) return status.ToString();
    rpc::ProfileInfo all;
    *all.mutable_browsers() = call.response.browsers();
    return Describe(std::vector<rpc::ProfileInfo>{all});
  }

  FakeProfiles profiles_;
  ::varnic::testing::FakeScheduler scheduler_;
  std::unique_ptr<BrowserHostService> service_ =
      std::make_unique<BrowserHostService>(profiles_, scheduler_);
  Client client_;
};

TEST_F(BrowserHostServiceTest, ProfilesAreListedWithTheirBrowsers) {
  OpenBrowser("default", "a");
  CreateProfile();
  Call<google::protobuf::Empty, rpc::ProfileList> call;

  ASSERT_TRUE(Finish(call, &BrowserHostService::ListProfiles).ok());

  EXPECT_EQ(Describe(call.response.profiles()), "default[1 a] profile-1[]");
  EXPECT_TRUE(call.response.profiles(0).is_default());
}

TEST_F(BrowserHostServiceTest, BrowsersOfEveryProfileAreListedUnderTheEmptyId) {
  CreateProfile();
  OpenBrowser("default", "a");
  OpenBrowser("profile-1", "b");

  EXPECT_EQ(BrowsersOf(""), "[1 a, 2 b]");
  EXPECT_EQ(BrowsersOf("profile-1"), "[2 b]");
  EXPECT_EQ(BrowsersOf("profile-9"), "NOT_FOUND: there is no profile \"profile-9\"");
}

TEST_F(BrowserHostServiceTest, ProfilesComeAndGo) {
  Call<rpc::CreateProfileRequest, rpc::ProfileInfo> create;
  create.request.set_name("Work");
  ASSERT_TRUE(Finish(create, &BrowserHostService::CreateProfile).ok());
  EXPECT_EQ(create.response.name(), "Work");

  Call<ProfileId, google::protobuf::Empty> erase;
  erase.request = create.response.id();
  ASSERT_TRUE(Finish(erase, &BrowserHostService::DeleteProfile).ok());

  EXPECT_EQ(profiles_.Find("profile-1"), nullptr);
}

TEST_F(BrowserHostServiceTest, BrowserIsClosedByItsNumber) {
  Call<BrowserId, google::protobuf::Empty> call;
  call.request.set_value(OpenBrowser("", "a"));
  ASSERT_TRUE(Finish(call, &BrowserHostService::CloseBrowser).ok());
  EXPECT_EQ(BrowsersOf(""), "[]");

  Call<BrowserId, google::protobuf::Empty> again;
  again.request.set_value(1);
  EXPECT_EQ(Finish(again, &BrowserHostService::CloseBrowser), absl::NotFoundError("no browser 1"));
}

TEST_F(BrowserHostServiceTest, CallIsAnsweredWhenTheServiceIsGone) {
  client_.stream->OnCompleted();
  client_.stream = nullptr;
  profiles_.HoldLists();
  Call<google::protobuf::Empty, rpc::ProfileList> call;
  call.Start(*service_, &BrowserHostService::ListProfiles);
  scheduler_.RunPosted();

  service_ = nullptr;
  profiles_.ReleaseLists();

  EXPECT_EQ(call.completions, 1);
  EXPECT_THAT(call.response.profiles(), SizeIs(1));
  EXPECT_FALSE(profiles_.has_listener());
}

TEST_F(BrowserHostServiceTest, NewSubscriberGetsTheStateAtOnce) {
  scheduler_.RunPosted();

  client_.Subscribe("");

  EXPECT_THAT(client_.Events(), ElementsAre(": default[]"));
}

TEST_F(BrowserHostServiceTest, SubscriberWaitsForAListThatIsOnItsWay) {
  profiles_.HoldLists();
  client_.Subscribe("");
  scheduler_.RunPosted();
  EXPECT_THAT(client_.Events(), IsEmpty());

  profiles_.ReleaseLists();

  EXPECT_THAT(client_.Events(), ElementsAre(": default[]"));
}

TEST_F(BrowserHostServiceTest, SubscriberOfAProfileHearsOfThatAlone) {
  CreateProfile();
  scheduler_.RunPosted();
  client_.Subscribe("profile-1");

  OpenBrowser("default", "a");
  scheduler_.RunPosted();
  OpenBrowser("profile-1", "b");
  scheduler_.RunPosted();

  EXPECT_THAT(client_.Events(), ElementsAre("profile-1: profile-1[]", "profile-1: profile-1[2 b]"));
}

TEST_F(BrowserHostServiceTest, ProfileThatIsNotThereIsToldAsNone) {
  scheduler_.RunPosted();
  client_.Subscribe("profile-1");

  CreateProfile();
  scheduler_.RunPosted();
  profiles_.DeleteProfile("profile-1", [](const auto&) {});
  scheduler_.RunPosted();

  EXPECT_THAT(client_.Events(),
              ElementsAre("profile-1: ", "profile-1: profile-1[]", "profile-1: "));
}

TEST_F(BrowserHostServiceTest, ChangesOfOneTurnAreOneEvent) {
  client_.Subscribe("");
  scheduler_.RunPosted();

  OpenBrowser("", "a");
  OpenBrowser("", "b");
  profiles_.FindBrowser(1)->set_url("c");
  profiles_.Changed();
  scheduler_.RunPosted();

  EXPECT_THAT(client_.Events(), ElementsAre(": default[]", ": default[1 c, 2 b]"));
}

TEST_F(BrowserHostServiceTest, ChangesDuringAListMakeOneMore) {
  client_.Subscribe("");
  scheduler_.RunPosted();
  const int lists_before = profiles_.lists();
  profiles_.HoldLists();
  OpenBrowser("", "a");
  scheduler_.RunPosted();

  OpenBrowser("", "b");
  OpenBrowser("", "c");
  scheduler_.RunPosted();
  profiles_.ReleaseLists();
  scheduler_.RunPosted();

  EXPECT_EQ(profiles_.lists(), lists_before + 2);
  EXPECT_THAT(client_.Events(),
              ElementsAre(": default[]", ": default[1 a]", ": default[1 a, 2 b, 3 c]"));
}

TEST_F(BrowserHostServiceTest, NothingIsPublishedWhenNothingDiffers) {
  client_.Subscribe("");
  scheduler_.RunPosted();

  profiles_.Changed();
  scheduler_.RunPosted();

  EXPECT_THAT(client_.Events(), SizeIs(1));
}

TEST_F(BrowserHostServiceTest, SubscriberHearsOfWhatNobodyHasTold) {
  scheduler_.RunPosted();
  profiles_.Find("")->mutable_id()->set_value("renamed");

  client_.Subscribe("");
  scheduler_.RunPosted();

  EXPECT_THAT(client_.Events(), ElementsAre(": default[]", ": renamed[]"));
}

TEST_F(BrowserHostServiceTest, FailedListIsAskedForAgain) {
  profiles_.FailLists(absl::UnavailableError("not yet"));
  client_.Subscribe("");
  scheduler_.RunPosted();
  profiles_.FailLists(absl::OkStatus());
  EXPECT_THAT(client_.Events(), IsEmpty());

  scheduler_.Advance(BrowserHostService::kRetryTime);

  EXPECT_THAT(client_.Events(), ElementsAre(": default[]"));
  EXPECT_EQ(scheduler_.timers(), 0U);
}

TEST_F(BrowserHostServiceTest, TextOfPagesIsCutBetweenCharacters) {
  std::string long_text = "x";
  while (long_text.size() < 3 * kMaxPageTextBytes) long_text += "é";
  OpenBrowser("", long_text);
  Call<google::protobuf::Empty, rpc::ProfileList> call;

  ASSERT_TRUE(Finish(call, &BrowserHostService::ListProfiles).ok());

  EXPECT_EQ(call.response.profiles(0).browsers(0).url(),
            long_text.substr(0, kMaxPageTextBytes - 1));
}

TEST_F(BrowserHostServiceTest, BytesThatAreNoTextDoNotSilenceTheStream) {
  client_.Subscribe("");
  scheduler_.RunPosted();

  profiles_.Find("")->set_path("/profiles/\xff");
  OpenBrowser("", "a\xff");
  scheduler_.RunPosted();

  EXPECT_THAT(client_.Events(), ElementsAre(": default[]", HasSubstr("[1 a\\xff]")));
}

}  // namespace
}  // namespace varnic::host
