// grpc.reflection of a running server, in both of its versions.

#include <gmock/gmock.h>
#include <google/protobuf/descriptor.pb.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "core/server/health/health_service.h"
#include "core/server/reflection/reflection_service.h"
#include "grpc/health/v1/health.pb.h"
#include "grpc/reflection/v1/reflection.pb.h"
#include "grpc/reflection/v1alpha/reflection.pb.h"
#include "tests/served_host.h"
#include "tests/stream_peer.h"

namespace varnic {
namespace {

using grpc::reflection::v1::ServerReflectionRequest;
using grpc::reflection::v1::ServerReflectionResponse;
using ::testing::ElementsAre;
using Stream = std::unique_ptr<StreamPeer::Stream>;

constexpr char kProfileFile[] = "rpc/profile/profile.proto";

ServerReflectionRequest FileOf(const std::string& symbol) {
  ServerReflectionRequest request;
  request.set_file_containing_symbol(symbol);
  return request;
}

ServerReflectionRequest FileNamed(const std::string& name) {
  ServerReflectionRequest request;
  request.set_file_by_filename(name);
  return request;
}

// The names of the files in a response.
std::vector<std::string> Files(const ServerReflectionResponse& response) {
  std::vector<std::string> names;
  for (const std::string& bytes : response.file_descriptor_response().file_descriptor_proto()) {
    google::protobuf::FileDescriptorProto file;
    EXPECT_TRUE(file.ParseFromString(bytes));
    names.push_back(file.name());
  }
  return names;
}

ServerOptions WithReflection() {
  ServerOptions options;
  options.serve_reflection = true;
  return options;
}

class ReflectionTest : public ::testing::TestWithParam<const char*> {
 protected:
  static std::string Path() {
    return std::string("/grpc.reflection.") + GetParam() + ".ServerReflection/ServerReflectionInfo";
  }
  ServerReflectionResponse Ask(const ServerReflectionRequest& request) {
    stream_->Send(request.SerializeAsString());
    return Next();
  }
  ServerReflectionResponse Next() {
    ServerReflectionResponse response;
    EXPECT_TRUE(response.ParseFromString(stream_->Receive()));
    return response;
  }
  void Drain() {
    served_.RunOnServer([this] { served_.server().Drain(absl::InfiniteDuration()); });
  }

  ServedHost served_{"unix", WithReflection()};
  StreamPeer peer_{served_.address()};
  Stream stream_ = peer_.OpenPath(Path());
};

INSTANTIATE_TEST_SUITE_P(Versions, ReflectionTest, ::testing::Values("v1", "v1alpha"),
                         [](const auto& version) { return version.param; });

TEST_P(ReflectionTest, ServicesAreListedByName) {
  ServerReflectionRequest request;
  request.set_list_services("anything");

  const ServerReflectionResponse response = Ask(request);

  std::vector<std::string> names;
  for (const auto& service : response.list_services_response().service()) {
    names.push_back(service.name());
  }
  EXPECT_THAT(names, ElementsAre("grpc.health.v1.Health", "grpc.reflection.v1.ServerReflection",
                                 "grpc.reflection.v1alpha.ServerReflection", "rpc.Profile"));
}

TEST_P(ReflectionTest, RequestAndHostComeBack) {
  ServerReflectionRequest request = FileNamed("nowhere.proto");
  request.set_host("profiles.example.org");

  const ServerReflectionResponse response = Ask(request);

  EXPECT_EQ(response.valid_host(), "profiles.example.org");
  EXPECT_EQ(response.original_request().SerializeAsString(), request.SerializeAsString());
}

TEST_P(ReflectionTest, FileComesFirstAndWithWhatItNeedsOncePerStream) {
  const std::vector<std::string> first = Files(Ask(FileOf("rpc.Profile")));
  const std::vector<std::string> second = Files(Ask(FileNamed(kProfileFile)));
  stream_ = peer_.OpenPath(Path());
  const std::vector<std::string> on_another_stream = Files(Ask(FileNamed(kProfileFile)));

  EXPECT_THAT(first, ElementsAre(kProfileFile, "google/protobuf/empty.proto",
                                 "google/protobuf/wrappers.proto", "rpc/event_subscription.proto",
                                 "rpc/identifiers.proto"));
  EXPECT_THAT(second, ElementsAre(kProfileFile));
  EXPECT_EQ(on_another_stream, first);
}

TEST_P(ReflectionTest, WhatIsUnknownIsAnErrorResponseAndTheStreamGoesOn) {
  ServerReflectionRequest extension;
  extension.mutable_file_containing_extension()->set_containing_type("rpc.Unknown");
  ServerReflectionRequest numbers;
  numbers.set_all_extension_numbers_of_type("rpc.Unknown");

  for (const ServerReflectionRequest& request :
       {FileNamed("nowhere.proto"), FileOf("rpc.Unknown"), extension, numbers}) {
    const ServerReflectionResponse response = Ask(request);

    EXPECT_EQ(response.error_response().error_code(), 5) << response.ShortDebugString();
    EXPECT_NE(response.error_response().error_message(), "");
  }
  EXPECT_EQ(Ask(ServerReflectionRequest()).error_response().error_code(), 3);
  EXPECT_THAT(Files(Ask(FileOf("ProfileId"))), ElementsAre("rpc/identifiers.proto"));
}

TEST_P(ReflectionTest, MessageWithoutExtensionsHasNoNumbers) {
  ServerReflectionRequest request;
  request.set_all_extension_numbers_of_type("ProfileId");

  const ServerReflectionResponse response = Ask(request);

  ASSERT_TRUE(response.has_all_extension_numbers_response());
  EXPECT_EQ(response.all_extension_numbers_response().base_type_name(), "ProfileId");
  EXPECT_EQ(response.all_extension_numbers_response().extension_number_size(), 0);
}

TEST_P(ReflectionTest, ManyRequestsAtOnceAreAnsweredInTheirOrderBeforeTheEnd) {
  constexpr int kRequests = 500;
  for (int i = 0; i < kRequests; ++i) {
    ServerReflectionRequest request = FileNamed(kProfileFile);
    request.set_host(std::to_string(i));
    stream_->Send(request.SerializeAsString());
  }
  stream_->HalfClose();

  for (int i = 0; i < kRequests; ++i) {
    const ServerReflectionResponse response = Next();
    ASSERT_EQ(response.valid_host(), std::to_string(i));
    ASSERT_EQ(Files(response).front(), kProfileFile);
  }
  EXPECT_EQ(stream_->Finish(), absl::OkStatus());
}

TEST_P(ReflectionTest, ClientThatAsksAndDoesNotReadIsLetGo) {
  net::GrpcClientOptions no_window;
  no_window.http2.stream_window_bytes = 0;
  StreamPeer peer(served_.address(), no_window);
  stream_ = peer.OpenPath(Path());

  for (int i = 0; i < 1100; ++i) stream_->Send(FileNamed(kProfileFile).SerializeAsString());

  EXPECT_EQ(stream_->Finish().code(), absl::StatusCode::kResourceExhausted);
  EXPECT_EQ(FreshCall(served_.address()), absl::OkStatus());
  stream_ = nullptr;
}

TEST_P(ReflectionTest, FewRequestsThatAreLongMayNotWaitEither) {
  net::GrpcClientOptions no_window;
  no_window.http2.stream_window_bytes = 0;
  StreamPeer peer(served_.address(), no_window);
  stream_ = peer.OpenPath(Path());

  for (int i = 0; i < 80; ++i) stream_->Send(FileNamed(std::string(4000, 'x')).SerializeAsString());

  EXPECT_EQ(stream_->Finish().code(), absl::StatusCode::kResourceExhausted);
  stream_ = nullptr;
}

TEST_P(ReflectionTest, RequestsThatAreNoneEndTheStream) {
  stream_->Send("\xff");
  EXPECT_EQ(stream_->Finish().code(), absl::StatusCode::kInvalidArgument);

  stream_ = peer_.OpenPath(Path());
  stream_->Send(FileNamed(std::string(5000, 'x')).SerializeAsString());
  EXPECT_EQ(stream_->Finish().code(), absl::StatusCode::kResourceExhausted);
}

TEST_P(ReflectionTest, DrainEndsTheStream) {
  EXPECT_FALSE(Files(Ask(FileOf("rpc.Profile"))).empty());

  Drain();

  EXPECT_EQ(stream_->Finish().code(), absl::StatusCode::kUnavailable);
  peer_.Disconnect();
  EXPECT_TRUE(served_.WaitUntilStopped());
}

TEST(ReflectionOptionsTest, ReflectionIsServedOnlyIfTheHostWantsIt) {
  const ServedHost served;
  StreamPeer peer(served.address());

  const Stream stream = peer.OpenPath("/grpc.reflection.v1.ServerReflection/ServerReflectionInfo");

  EXPECT_EQ(stream->Finish().code(), absl::StatusCode::kUnimplemented);
}

// This test has linked gRPC's own code for the server's services, as a host may.
TEST(BuiltInServicesTest, ServicesAreThoseOfGrpcToTheirClients) {
  const auto text = [](const google::protobuf::FileDescriptor& file) {
    google::protobuf::FileDescriptorProto proto;
    file.CopyTo(&proto);
    return proto.DebugString();
  };

  const auto [newer, older] = ReflectionService::Descriptors();
  const google::protobuf::ServiceDescriptor& health = HealthService::Descriptor();

  EXPECT_EQ(text(*newer->file()), text(*ServerReflectionRequest::descriptor()->file()));
  EXPECT_EQ(text(*older->file()),
            text(*grpc::reflection::v1alpha::ServerReflectionRequest::descriptor()->file()));
  EXPECT_EQ(text(*health.file()),
            text(*grpc::health::v1::HealthCheckRequest::descriptor()->file()));
}

// One implementation speaks both versions, because they are the same on the wire.
TEST(ReflectionVersionsTest, BothVersionsHaveTheSameMessages) {
  google::protobuf::FileDescriptorProto newer;
  google::protobuf::FileDescriptorProto older;
  ServerReflectionRequest::descriptor()->file()->CopyTo(&newer);
  grpc::reflection::v1alpha::ServerReflectionRequest::descriptor()->file()->CopyTo(&older);
  std::string text = older.DebugString();
  for (std::size_t at = text.find("v1alpha"); at != std::string::npos; at = text.find("v1alpha")) {
    text.replace(at, 7, "v1");
  }

  EXPECT_EQ(text, newer.DebugString());
}

}  // namespace
}  // namespace varnic
