#include "core/common/rpc/service_descriptors.h"

#include <gmock/gmock.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/descriptor.pb.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <string>

#include "core/common/rpc/process_death_test_support.h"

namespace varnic {
namespace {

using google::protobuf::ServiceDescriptor;
using testing::EndedByTrap;
using ::testing::IsEmpty;

class ServiceDescriptorsTest : public ::testing::Test {
 protected:
  // A file with the services Service0, Service1 and so on.
  const google::protobuf::FileDescriptor& FileWithServices(int count) {
    google::protobuf::FileDescriptorProto file;
    file.set_name("services.proto");
    for (int i = 0; i < count; ++i) file.add_service()->set_name("Service" + std::to_string(i));
    return *pool_.BuildFile(file);
  }

 private:
  google::protobuf::DescriptorPool pool_;
};

using ServiceDescriptorsDeathTest = ServiceDescriptorsTest;

TEST_F(ServiceDescriptorsTest, AFileWithoutServicesLeavesTheEntryNull) {
  const ServiceDescriptor* services[1] = {};

  StoreServiceDescriptors(FileWithServices(0), services);

  EXPECT_EQ(services[0], nullptr);
}

TEST_F(ServiceDescriptorsTest, TheOnlyServiceIsStored) {
  const ServiceDescriptor* services[1] = {};
  const auto& file = FileWithServices(1);

  StoreServiceDescriptors(file, services);

  EXPECT_EQ(services[0], file.service(0));
}

TEST_F(ServiceDescriptorsTest, ServicesAreStoredInTheOrderOfTheFile) {
  const ServiceDescriptor* services[2] = {};

  StoreServiceDescriptors(FileWithServices(2), services);

  EXPECT_EQ(services[0]->name(), "Service0");
  EXPECT_EQ(services[1]->name(), "Service1");
}

TEST_F(ServiceDescriptorsDeathTest, ASecondServiceTrapsWithoutARecord) {
  const ServiceDescriptor* services[1] = {};
  const auto& file = FileWithServices(2);

  EXPECT_EXIT(StoreServiceDescriptors(file, services), EndedByTrap, IsEmpty());
}

TEST_F(ServiceDescriptorsDeathTest, TheFirstOfTwoServicesIsStoredBeforeTheTrap) {
  static const ServiceDescriptor* services[1] = {};
  const auto& file = FileWithServices(2);
  const auto exit_if_stored = [](int) { _exit(services[0] != nullptr ? 3 : 4); };

  EXPECT_EXIT(
      {
        signal(SIGILL, exit_if_stored);
        signal(SIGTRAP, exit_if_stored);
        StoreServiceDescriptors(file, services);
      },
      ::testing::ExitedWithCode(3), IsEmpty());
}

}  // namespace
}  // namespace varnic
