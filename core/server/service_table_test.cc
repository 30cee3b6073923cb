#include "core/server/service_table.h"

#include <gtest/gtest.h>

#include <string_view>

#include "absl/strings/str_cat.h"
#include "core/server/health/health_service.h"
#include "rpc/profile/profile.rpc.h"

namespace varnic {
namespace {

class ServiceTableTest : public ::testing::Test {
 protected:
  ServiceTableTest() { table_.Add(service_); }

  absl::Status Failure(std::string_view path) const { return table_.Find(path).status(); }

  rpc::ProfileRpc service_;
  ServiceTable table_;
};

TEST_F(ServiceTableTest, FindsEveryMethodOfAService) {
  const google::protobuf::ServiceDescriptor& descriptor = *rpc::ProfileRpc::descriptor();
  ASSERT_EQ(descriptor.method_count(), 12);

  for (int i = 0; i < descriptor.method_count(); ++i) {
    const auto method = table_.Find("/rpc.Profile/" + descriptor.method(i)->name());

    ASSERT_TRUE(method.ok()) << method.status();
    EXPECT_EQ((*method)->service, &service_);
    EXPECT_EQ((*method)->descriptor, descriptor.method(i));
  }
}

TEST_F(ServiceTableTest, MethodsOfAHandlerLeadToIt) {
  HealthService health;
  table_.Add(HealthService::Descriptor(), health);

  const auto method = table_.Find("/grpc.health.v1.Health/Watch");

  ASSERT_TRUE(method.ok()) << method.status();
  EXPECT_EQ((*method)->handler, &health);
  EXPECT_EQ((*method)->descriptor, HealthService::Descriptor().FindMethodByName("Watch"));
  EXPECT_EQ((*table_.Find("/rpc.Profile/Path"))->handler, nullptr);
}

TEST_F(ServiceTableTest, UnknownServiceIsNamed) {
  EXPECT_EQ(Failure("/rpc.Nobody/Path"), absl::UnimplementedError("Unknown service rpc.Nobody"));
  EXPECT_EQ(Failure("/profile/Path"), absl::UnimplementedError("Unknown service profile"));
  EXPECT_EQ(Failure("/rpc.Profile/Path/Path"),
            absl::UnimplementedError("Unknown service rpc.Profile/Path"));
}

TEST_F(ServiceTableTest, UnknownMethodIsNamedWithItsService) {
  EXPECT_EQ(Failure("/rpc.Profile/path"),
            absl::UnimplementedError("Unknown method path of service rpc.Profile"));
  EXPECT_EQ(Failure("/rpc.Profile/"),
            absl::UnimplementedError("Unknown method  of service rpc.Profile"));
}

TEST_F(ServiceTableTest, PathOfAnotherShapeIsQuoted) {
  for (const char* path : {"", "/", "Path", "/Path", "rpc.Profile/Path", "a/b"}) {
    EXPECT_EQ(Failure(path),
              absl::UnimplementedError(absl::StrCat("Malformed method name \"", path, "\"")));
  }
}

TEST_F(ServiceTableTest, EmptyTableKnowsNoService) {
  EXPECT_EQ(ServiceTable().Find("/rpc.Profile/Path").status(),
            absl::UnimplementedError("Unknown service rpc.Profile"));
}

TEST(ServiceTableDeathTest, SecondServiceOfTheSameNameIsFatal) {
  rpc::ProfileRpc first;
  rpc::ProfileRpc second;
  ServiceTable table;
  table.Add(first);

  EXPECT_DEATH(table.Add(second), "is_new");
}

}  // namespace
}  // namespace varnic
