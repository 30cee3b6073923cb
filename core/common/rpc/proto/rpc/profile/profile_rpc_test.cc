#include <gmock/gmock.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/empty.pb.h>
#include <google/protobuf/service.h>
#include <google/protobuf/wrappers.pb.h>
#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "core/common/rpc/process_death_test_support.h"
#include "core/common/rpc/stream/profile_streams_test_support.h"
#include "core/common/rpc/testing/recording_channel.h"
#include "core/common/rpc/virtual_slot_test_support.h"
#include "rpc/profile/profile.pb.h"
#include "rpc/profile/profile.rpc.h"

namespace rpc {
namespace {

using google::protobuf::Closure;
using google::protobuf::DescriptorPool;
using google::protobuf::Message;
using google::protobuf::MethodDescriptor;
using google::protobuf::RpcController;
using ::testing::ElementsAre;
using varnic::AbstractStream;
using varnic::StreamChannel;
using varnic::testing::AuthenticationStream;
using varnic::testing::Envelope;
using varnic::testing::FatalRecord;
using varnic::testing::FileAccessStream;
using varnic::testing::NetworkStream;
using varnic::testing::Profile;
using varnic::testing::RecordingChannel;
using varnic::testing::VirtualSlot;

constexpr int kMethods = 12;

// Keeps the texts of all failures.
class RecordingController : public RpcController {
 public:
  void Reset() override { failures.clear(); }
  bool Failed() const override { return !failures.empty(); }
  std::string ErrorText() const override { return failures.empty() ? "" : failures.back(); }
  void StartCancel() override {}
  void SetFailed(const std::string& reason) override { failures.push_back(reason); }
  bool IsCanceled() const override { return false; }
  void NotifyOnCancel(Closure* /*callback*/) override {}

  std::vector<std::string> failures;
};

// Notes, for each run, what the controller had been told by then.
class RecordingClosure : public Closure {
 public:
  explicit RecordingClosure(const RecordingController& controller) : controller_(controller) {}
  void Run() override { runs.push_back(controller_.ErrorText()); }

  std::vector<std::string> runs;

 private:
  const RecordingController& controller_;
};

// A unary call as a server makes it.
struct Call {
  Call(varnic::Service& service, const MethodDescriptor* method)
      : request(service.GetRequestPrototype(method).New()),
        response(service.GetResponsePrototype(method).New()) {
    service.CallMethod(method, &controller, request.get(), response.get(), &done);
  }

  RecordingController controller;
  RecordingClosure done{controller};
  std::unique_ptr<Message> request;
  std::unique_ptr<Message> response;
};

// Serves everything: notes the method and its arguments.
class Host : public ProfileRpc {
 public:
  void Path(RpcController* controller, const ProfileId* request,
            google::protobuf::StringValue* response, Closure* done) override {
    Serve("Path", controller, request, response, done);
  }
  void Name(RpcController* controller, const ProfileId* request,
            google::protobuf::StringValue* response, Closure* done) override {
    Serve("Name", controller, request, response, done);
  }
  void IsIncognito(RpcController* controller, const ProfileId* request,
                   google::protobuf::BoolValue* response, Closure* done) override {
    Serve("IsIncognito", controller, request, response, done);
  }
  void IsDefault(RpcController* controller, const ProfileId* request,
                 google::protobuf::BoolValue* response, Closure* done) override {
    Serve("IsDefault", controller, request, response, done);
  }
  void CreateBrowser(RpcController* controller, const BrowserOptions* request, BrowserId* response,
                     Closure* done) override {
    Serve("CreateBrowser", controller, request, response, done);
  }
  void SetAcceptLanguage(RpcController* controller, const SetAcceptLanguageRequest* request,
                         google::protobuf::Empty* response, Closure* done) override {
    Serve("SetAcceptLanguage", controller, request, response, done);
  }
  void GetAcceptLanguage(RpcController* controller, const ProfileId* request,
                         google::protobuf::StringValue* response, Closure* done) override {
    Serve("GetAcceptLanguage", controller, request, response, done);
  }
  void GetUserAgent(RpcController* controller, const ProfileId* request,
                    google::protobuf::StringValue* response, Closure* done) override {
    Serve("GetUserAgent", controller, request, response, done);
  }
  void GetUserAgentMetadata(RpcController* controller, const ProfileId* request,
                            UserAgentMetadata* response, Closure* done) override {
    Serve("GetUserAgentMetadata", controller, request, response, done);
  }

  struct Served {
    std::string method;
    RpcController* controller;
    const Message* request;
    Message* response;
    Closure* done;
  };
  std::vector<Served> served;

 private:
  void Serve(const char* method, RpcController* controller, const Message* request,
             Message* response, Closure* done) {
    served.push_back({method, controller, request, response, done});
    done->Run();
  }
};

const MethodDescriptor* Method(int index) {
  return ProfileRpc::descriptor()->method(index);
}

// Copies what `file` imports, and what that imports, to `pool`.
void CopyDependencies(const google::protobuf::FileDescriptor& file, DescriptorPool& pool) {
  for (int i = 0; i < file.dependency_count(); ++i) {
    if (pool.FindFileByName(file.dependency(i)->name()) != nullptr) continue;
    CopyDependencies(*file.dependency(i), pool);
    google::protobuf::FileDescriptorProto dependency;
    file.dependency(i)->CopyTo(&dependency);
    pool.BuildFile(dependency);
  }
}

class ProfileRpcTest : public varnic::testing::ProfileStreamsTest {
 protected:
  // A method of a service that has nothing to do with profiles. Its methods are numbered.
  const MethodDescriptor* ForeignMethod(int index) {
    const auto* file = pool_.FindFileByName("foreign.proto");
    if (file == nullptr) file = BuildForeignFile();
    return file->service(0)->method(index);
  }

  template <class Stream>
  static Stream* As(const std::unique_ptr<AbstractStream>& stream) {
    return static_cast<Stream*>(stream.get());
  }
  std::unique_ptr<AbstractStream> Open(const MethodDescriptor* method,
                                       RecordingChannel& recording) {
    return std::unique_ptr<AbstractStream>(service_.OpenStream(method, recording.Open()));
  }
  void OpenAndForget(const MethodDescriptor* method) {
    RecordingChannel recording;
    Open(method, recording);
  }

 private:
  const google::protobuf::FileDescriptor* BuildForeignFile() {
    google::protobuf::FileDescriptorProto file;
    file.set_name("foreign.proto");
    file.add_message_type()->set_name("Nothing");
    auto* service = file.add_service();
    service->set_name("Foreign");
    for (int i = 0; i < kMethods + 2; ++i) {
      auto* method = service->add_method();
      method->set_name("Method" + std::to_string(i));
      method->set_input_type(".Nothing");
      method->set_output_type(".Nothing");
    }
    return pool_.BuildFile(file);
  }

  DescriptorPool pool_;
};

using ProfileRpcDeathTest = ProfileRpcTest;

// The service's definition.

TEST_F(ProfileRpcTest, TheFileDeclaresTheMethodsInTheirAgreedOrder) {
  std::vector<std::string> names;
  for (int i = 0; i < ProfileRpc::descriptor()->method_count(); ++i) {
    EXPECT_EQ(Method(i)->index(), i);
    names.push_back(Method(i)->name());
  }

  EXPECT_THAT(names, ElementsAre("Path", "Name", "IsIncognito", "IsDefault", "CreateBrowser",
                                 "SetAcceptLanguage", "GetAcceptLanguage", "GetUserAgent",
                                 "GetUserAgentMetadata", "WhenNetworkChanged", "OnCanAccessFile",
                                 "OnAuthenticate"));
}

TEST_F(ProfileRpcTest, TheFileDeclaresOneService) {
  const auto* file = DescriptorPool::generated_pool()->FindFileByName("rpc/profile/profile.proto");

  ASSERT_NE(file, nullptr);
  EXPECT_EQ(file->service_count(), 1);
  EXPECT_EQ(file->service(0), ProfileRpc::descriptor());
}

TEST_F(ProfileRpcTest, PrototypesAreTheTypesThatTheFileDeclares) {
  for (int i = 0; i < kMethods; ++i) {
    EXPECT_EQ(service_.GetRequestPrototype(Method(i)).GetDescriptor(), Method(i)->input_type())
        << i;
    EXPECT_EQ(service_.GetResponsePrototype(Method(i)).GetDescriptor(), Method(i)->output_type())
        << i;
  }
}

TEST_F(ProfileRpcTest, RequestPrototypesAreDefaultInstances) {
  const std::vector<const Message*> expected = {
      &ProfileId::default_instance(),      &ProfileId::default_instance(),
      &ProfileId::default_instance(),      &ProfileId::default_instance(),
      &BrowserOptions::default_instance(), &SetAcceptLanguageRequest::default_instance(),
      &ProfileId::default_instance(),      &ProfileId::default_instance(),
      &ProfileId::default_instance(),      &EventSubscription::default_instance(),
      &CanAccessFile::default_instance(),  &Authenticate::default_instance()};

  for (int i = 0; i < kMethods; ++i) {
    EXPECT_EQ(&service_.GetRequestPrototype(Method(i)), expected[i]) << i;
  }
}

TEST_F(ProfileRpcTest, ResponsePrototypesAreDefaultInstances) {
  using google::protobuf::BoolValue;
  using google::protobuf::StringValue;
  const std::vector<const Message*> expected = {
      &StringValue::default_instance(),       &StringValue::default_instance(),
      &BoolValue::default_instance(),         &BoolValue::default_instance(),
      &BrowserId::default_instance(),         &google::protobuf::Empty::default_instance(),
      &StringValue::default_instance(),       &StringValue::default_instance(),
      &UserAgentMetadata::default_instance(), &NetworkChanged::default_instance(),
      &CanAccessFile::default_instance(),     &Authenticate::default_instance()};

  for (int i = 0; i < kMethods; ++i) {
    EXPECT_EQ(&service_.GetResponsePrototype(Method(i)), expected[i]) << i;
  }
}

TEST_F(ProfileRpcTest, ACallbackMethodHasOnePrototypeForBothDirections) {
  for (int i : {10, 11}) {
    EXPECT_EQ(&service_.GetRequestPrototype(Method(i)), &service_.GetResponsePrototype(Method(i)));
  }
}

TEST_F(ProfileRpcTest, IdentifiersLiveOutsideThePackage) {
  EXPECT_EQ(ProfileId::descriptor()->full_name(), "ProfileId");
  EXPECT_EQ(BrowserId::descriptor()->full_name(), "BrowserId");
  EXPECT_EQ(NetworkChanged::descriptor()->full_name(), "rpc.NetworkChanged");
  EXPECT_TRUE((std::is_same_v<::ProfileId, ProfileId>));
}

TEST_F(ProfileRpcTest, StreamControlFieldsHaveTheirAgreedNumbers) {
  EXPECT_EQ(CanAccessFile::kSubscribeFieldNumber, 2);
  EXPECT_EQ(CanAccessFile::kResponseFieldNumber, 4);
  EXPECT_EQ(Authenticate::kSubscribeFieldNumber, 2);
  EXPECT_EQ(Authenticate::kResponseFieldNumber, 4);
  EXPECT_EQ(CanAccessFile::descriptor()->FindFieldByName("subscribe")->containing_oneof()->name(),
            "kind");
  EXPECT_EQ(Authenticate::descriptor()->FindFieldByName("response")->containing_oneof()->name(),
            "kind");
}

TEST_F(ProfileRpcTest, TheEnvelopesCallIdIsASignedNumberOfSixtyFourBits) {
  using google::protobuf::FieldDescriptor;
  const auto* envelope = transport::StreamMessage::descriptor();

  EXPECT_EQ(envelope->FindFieldByName("payload")->type(), FieldDescriptor::TYPE_BYTES);
  EXPECT_EQ(envelope->FindFieldByName("call_id")->type(), FieldDescriptor::TYPE_INT64);
}

TEST_F(ProfileRpcTest, VirtualOperationsStandInTheirAgreedOrder) {
  EXPECT_EQ(VirtualSlot(&ProfileRpc::GetDescriptor), 2u);
  EXPECT_EQ(VirtualSlot(&ProfileRpc::CallMethod), 3u);
  EXPECT_EQ(VirtualSlot(&ProfileRpc::GetRequestPrototype), 4u);
  EXPECT_EQ(VirtualSlot(&ProfileRpc::GetResponsePrototype), 5u);
  EXPECT_EQ(VirtualSlot(&ProfileRpc::OpenStream), 6u);
  EXPECT_EQ(VirtualSlot(&ProfileRpc::Path), 7u);
  EXPECT_EQ(VirtualSlot(&ProfileRpc::Name), 8u);
  EXPECT_EQ(VirtualSlot(&ProfileRpc::IsIncognito), 9u);
  EXPECT_EQ(VirtualSlot(&ProfileRpc::IsDefault), 10u);
  EXPECT_EQ(VirtualSlot(&ProfileRpc::CreateBrowser), 11u);
  EXPECT_EQ(VirtualSlot(&ProfileRpc::SetAcceptLanguage), 12u);
  EXPECT_EQ(VirtualSlot(&ProfileRpc::GetAcceptLanguage), 13u);
  EXPECT_EQ(VirtualSlot(&ProfileRpc::GetUserAgent), 14u);
  EXPECT_EQ(VirtualSlot(&ProfileRpc::GetUserAgentMetadata), 15u);
  EXPECT_EQ(VirtualSlot(&ProfileRpc::WhenNetworkChanged), 16u);
  EXPECT_EQ(VirtualSlot(&ProfileRpc::OnCanAccessFile), 17u);
  EXPECT_EQ(VirtualSlot(&ProfileRpc::OnAuthenticate), 18u);
}

TEST_F(ProfileRpcTest, TheSkeletonHasNoDataOfItsOwn) {
  EXPECT_EQ(sizeof(ProfileRpc), sizeof(void*));
  EXPECT_TRUE((std::is_base_of_v<varnic::Service, ProfileRpc>));
}

TEST_F(ProfileRpcTest, EveryServiceObjectGivesTheSameDescriptor) {
  ProfileRpc other;

  EXPECT_EQ(service_.GetDescriptor(), ProfileRpc::descriptor());
  EXPECT_EQ(other.GetDescriptor(), ProfileRpc::descriptor());
  EXPECT_EQ(ProfileRpc::descriptor(), ProfileRpc::descriptor());
}

// Unary calls.

TEST_F(ProfileRpcTest, MethodsThatTheHostDoesNotServeFailWithTheirOwnText) {
  std::vector<std::string> texts;

  for (int i = 0; i < 9; ++i) {
    const Call call(service_, Method(i));
    ASSERT_EQ(call.controller.failures.size(), 1u);
    texts.push_back(call.controller.failures[0]);
  }

  EXPECT_THAT(texts, ElementsAre("Method Path() not implemented.", "Method Name() not implemented.",
                                 "Method IsIncognito() not implemented.",
                                 "Method IsDefault() not implemented.",
                                 "Method CreateBrowser() not implemented.",
                                 "Method SetAcceptLanguage() not implemented.",
                                 "Method GetAcceptLanguage() not implemented.",
                                 "Method GetUserAgent() not implemented.",
                                 "Method GetUserAgentMetadata() not implemented."));
}

TEST_F(ProfileRpcTest, AMethodThatIsNotServedRunsItsClosureOnceAfterTheFailure) {
  for (int i = 0; i < 9; ++i) {
    const Call call(service_, Method(i));

    EXPECT_THAT(call.done.runs, ElementsAre(call.controller.failures[0])) << i;
  }
}

TEST_F(ProfileRpcTest, AMethodThatIsNotServedLeavesRequestAndResponseAlone) {
  ProfileId request = Profile("work");
  google::protobuf::StringValue response;
  response.set_value("as it was");
  RecordingController controller;
  RecordingClosure done(controller);

  service_.CallMethod(Method(0), &controller, &request, &response, &done);

  EXPECT_EQ(request.value(), "work");
  EXPECT_EQ(response.value(), "as it was");
  EXPECT_EQ(Call(service_, Method(0)).response->ByteSizeLong(), 0u);
}

TEST_F(ProfileRpcTest, EachIndexReachesTheOverrideOfItsMethod) {
  Host host;

  for (int i = 0; i < 9; ++i) {
    const Call call(host, Method(i));
    EXPECT_EQ(host.served.back().method, Method(i)->name());
    EXPECT_EQ(call.done.runs.size(), 1u);
    EXPECT_FALSE(call.controller.Failed());
  }

  EXPECT_EQ(host.served.size(), 9u);
}

TEST_F(ProfileRpcTest, AnOverrideGetsTheArgumentsOfTheCall) {
  Host host;

  for (int i = 0; i < 9; ++i) {
    const Call call(host, Method(i));

    EXPECT_EQ(host.served.back().controller, &call.controller) << i;
    EXPECT_EQ(host.served.back().request, call.request.get()) << i;
    EXPECT_EQ(host.served.back().response, call.response.get()) << i;
    EXPECT_EQ(host.served.back().done, &call.done) << i;
  }
}

TEST_F(ProfileRpcTest, AMethodOfAnotherServiceIsDispatchedByItsIndex) {
  Host host;
  const ProfileId request;
  google::protobuf::StringValue response;
  RecordingController controller;
  RecordingClosure done(controller);

  host.CallMethod(ForeignMethod(1), &controller, &request, &response, &done);

  ASSERT_EQ(host.served.size(), 1u);
  EXPECT_EQ(host.served[0].method, "Name");
  EXPECT_EQ(&host.GetRequestPrototype(ForeignMethod(4)), &BrowserOptions::default_instance());
  EXPECT_EQ(&host.GetResponsePrototype(ForeignMethod(9)), &NetworkChanged::default_instance());
}

TEST_F(ProfileRpcTest, AFileWithAnotherOrderReachesTheWrongOverrides) {
  DescriptorPool pool;
  CopyDependencies(*ProfileRpc::descriptor()->file(), pool);
  google::protobuf::FileDescriptorProto file;
  ProfileRpc::descriptor()->file()->CopyTo(&file);
  file.mutable_service(0)->mutable_method()->SwapElements(0, 1);
  const auto* reordered = pool.BuildFile(file)->service(0);
  Host host;

  Call(host, reordered->FindMethodByName("Name"));
  Call(host, reordered->FindMethodByName("Path"));

  ASSERT_EQ(host.served.size(), 2u);
  EXPECT_EQ(host.served[0].method, "Path");
  EXPECT_EQ(host.served[1].method, "Name");
}

TEST_F(ProfileRpcDeathTest, CallingAStreamingMethodIsFatalOnALineOfItsOwn) {
  std::set<int> lines;
  for (int i : {9, 10, 11}) {
    int line = 0;

    EXPECT_DEATH(
        Call(service_, Method(i)),
        FatalRecord("profile.rpc.cc", "Streaming method can't be called with this call.", line));

    lines.insert(line);
  }
  EXPECT_EQ(lines.size(), 3u);
}

TEST_F(ProfileRpcDeathTest, AForeignStreamingIndexIsFatalToo) {
  int line = 0;

  EXPECT_DEATH(
      service_.CallMethod(ForeignMethod(10), nullptr, nullptr, nullptr, nullptr),
      FatalRecord("profile.rpc.cc", "Streaming method can't be called with this call.", line));
}

TEST_F(ProfileRpcDeathTest, AMethodIndexThatTheServiceDoesNotHaveIsFatalEverywhere) {
  const char* const text = "Bad method index; this should never happen.";
  std::set<int> lines;
  int line = 0;
  for (const MethodDescriptor* method : {ForeignMethod(12), ForeignMethod(13)}) {
    EXPECT_DEATH(service_.CallMethod(method, nullptr, nullptr, nullptr, nullptr),
                 FatalRecord("profile.rpc.cc", text, line));
    lines.insert(line);
    EXPECT_DEATH(service_.GetRequestPrototype(method), FatalRecord("profile.rpc.cc", text, line));
    lines.insert(line);
    EXPECT_DEATH(service_.GetResponsePrototype(method), FatalRecord("profile.rpc.cc", text, line));
    lines.insert(line);
    EXPECT_DEATH(OpenAndForget(method), FatalRecord("profile.rpc.cc", text, line));
    lines.insert(line);
  }
  EXPECT_EQ(lines.size(), 4u);
}

TEST_F(ProfileRpcDeathTest, AHookThatIsNotOverriddenIsFatal) {
  int line = 0;

  EXPECT_DEATH(service_.WhenNetworkChanged(),
               FatalRecord("profile.rpc.cc", "Not implemented.", line));
  EXPECT_DEATH(service_.OnCanAccessFile(), FatalRecord("profile.rpc.cc", "Not implemented.", line));
  EXPECT_DEATH(service_.OnAuthenticate(), FatalRecord("profile.rpc.cc", "Not implemented.", line));
}

// Streams.

TEST_F(ProfileRpcTest, OpeningAStreamLeavesTheCallersChannelEmptyAndTheStreamOpen) {
  for (int i : {9, 10, 11}) {
    RecordingChannel recording;
    StreamChannel channel = recording.Open();

    const std::unique_ptr<AbstractStream> stream(
        service_.OpenStream(Method(i), std::move(channel)));

    EXPECT_FALSE(channel) << i;  // NOLINT(bugprone-use-after-move): it is empty by contract.
    EXPECT_TRUE(stream->channel()) << i;
    EXPECT_TRUE(recording.open()) << i;
  }
}

TEST_F(ProfileRpcTest, AStreamHoldsTheServiceAndTheMethodThatOpenedIt) {
  RecordingChannel recordings[3];
  const auto network = Open(Method(9), recordings[0]);
  const auto files = Open(Method(10), recordings[1]);
  const auto authentication = Open(Method(11), recordings[2]);

  EXPECT_EQ(As<NetworkStream>(network)->service_.get(), &service_);
  EXPECT_EQ(As<NetworkStream>(network)->method_.get(), Method(9));
  EXPECT_EQ(As<FileAccessStream>(files)->service_.get(), &service_);
  EXPECT_EQ(As<FileAccessStream>(files)->method_.get(), Method(10));
  EXPECT_EQ(As<AuthenticationStream>(authentication)->service_.get(), &service_);
  EXPECT_EQ(As<AuthenticationStream>(authentication)->method_.get(), Method(11));
}

TEST_F(ProfileRpcTest, EachStreamingMethodOpensItsKindOfStream) {
  RecordingChannel recordings[3];
  const auto network = Open(Method(9), recordings[0]);
  const auto files = Open(Method(10), recordings[1]);
  const auto authentication = Open(Method(11), recordings[2]);
  EventSubscription subscription;
  subscription.set_action(EventSubscription::SUBSCRIBE);
  CanAccessFile control;
  control.set_subscribe(true);
  auto to_network = Envelope(subscription.SerializeAsString());
  auto to_callbacks = Envelope(control.SerializeAsString());

  network->OnNext(&to_network);
  files->OnNext(&to_callbacks);
  authentication->OnNext(&to_callbacks);

  EXPECT_EQ(NetworkStream::stream_map_.begin()->second.count(As<NetworkStream>(network)), 1u);
  EXPECT_EQ(FileAccessStream::stream_map_.begin()->second, files.get());
  EXPECT_EQ(AuthenticationStream::stream_map_.begin()->second, authentication.get());
  for (const auto& stream : {&network, &files, &authentication}) (*stream)->OnCompleted();
}

TEST_F(ProfileRpcTest, OpeningAMethodTwiceGivesTwoUnregisteredStreamsWithTheirOwnChannels) {
  for (int i : {9, 10, 11}) {
    RecordingChannel first_recording;
    RecordingChannel second_recording;
    auto first = Open(Method(i), first_recording);
    const auto second = Open(Method(i), second_recording);

    EXPECT_NE(first, second);
    EXPECT_TRUE(NetworkStream::stream_map_.empty());
    EXPECT_TRUE(FileAccessStream::stream_map_.empty());
    EXPECT_TRUE(AuthenticationStream::stream_map_.empty());
    first.reset();
    EXPECT_FALSE(first_recording.open());
    EXPECT_TRUE(second_recording.open());
  }
}

TEST_F(ProfileRpcTest, AForeignStreamingMethodOpensTheStreamOfItsIndex) {
  RecordingChannel recording;

  const auto stream = Open(ForeignMethod(11), recording);

  EXPECT_EQ(As<AuthenticationStream>(stream)->method_.get(), ForeignMethod(11));
}

TEST_F(ProfileRpcDeathTest, OpeningAUnaryMethodIsFatalOnALineOfItsOwn) {
  std::set<int> lines;
  for (int i = 0; i < 9; ++i) {
    int line = 0;

    EXPECT_DEATH(
        OpenAndForget(Method(i)),
        FatalRecord("profile.rpc.cc", "Cannot open a stream for a non-streaming method.", line));

    lines.insert(line);
  }
  EXPECT_EQ(lines.size(), 9u);
}

}  // namespace
}  // namespace rpc
