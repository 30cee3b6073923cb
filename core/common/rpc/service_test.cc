#include "core/common/rpc/service.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <new>
#include <type_traits>

#include "base/allocator/partition_allocator/dangling_raw_ptr_checks.h"
#include "base/allocator/partition_allocator/partition_address_space.h"
#include "core/common/rpc/abstract_stream.h"
#include "core/common/rpc/testing/recording_channel.h"
#include "core/common/rpc/virtual_slot_test_support.h"
#include "rpc/profile/profile.rpc.h"

namespace varnic {
namespace {

using testing::RecordingChannel;
using testing::VirtualSlot;

static_assert(std::is_base_of_v<google::protobuf::Service, Service>);
static_assert(std::has_virtual_destructor_v<Service>);
static_assert(sizeof(Service) == sizeof(void*));
static_assert(sizeof(rpc::ProfileRpc) == sizeof(void*));

int g_reports = 0;
std::uintptr_t g_reported = 0;

bool IsProtected(const void* memory) {
  return partition_alloc::internal::PartitionAddressSpace::IsInBRPPool(
      reinterpret_cast<std::uintptr_t>(memory));
}

class ServiceTest : public ::testing::Test {
 protected:
  ServiceTest() {
    g_reports = 0;
    g_reported = 0;
    partition_alloc::SetDanglingRawPtrDetectedFn([](std::uintptr_t id) {
      ++g_reports;
      g_reported = id;
    });
  }
  ~ServiceTest() override { partition_alloc::SetDanglingRawPtrDetectedFn(default_detected_); }

  static std::unique_ptr<AbstractStream> Open(Service& service, int method,
                                              RecordingChannel& recording) {
    return std::unique_ptr<AbstractStream>(
        service.OpenStream(service.GetDescriptor()->method(method), recording.Open()));
  }

  RecordingChannel recording_;

 private:
  partition_alloc::DanglingRawPtrDetectedFn* const default_detected_ =
      partition_alloc::GetDanglingRawPtrDetectedFn();
};

TEST_F(ServiceTest, OpenStreamFollowsTheOperationsOfTheGenericService) {
  EXPECT_EQ(VirtualSlot(&Service::GetDescriptor), 2u);
  EXPECT_EQ(VirtualSlot(&Service::CallMethod), 3u);
  EXPECT_EQ(VirtualSlot(&Service::GetRequestPrototype), 4u);
  EXPECT_EQ(VirtualSlot(&Service::GetResponsePrototype), 5u);
  EXPECT_EQ(VirtualSlot(&Service::OpenStream), 6u);
}

TEST_F(ServiceTest, DeletingAServiceThatAStreamHoldsIsReportedOnce) {
  auto* service = new rpc::ProfileRpc;
  const auto address = reinterpret_cast<std::uintptr_t>(service);
  const auto stream = Open(*service, 9, recording_);

  delete service;

  EXPECT_EQ(g_reports, 1);
  EXPECT_EQ(g_reported, address);
}

TEST_F(ServiceTest, DeletingAServiceThatSeveralStreamsHoldIsReportedOnce) {
  RecordingChannel second_recording;
  RecordingChannel third_recording;
  auto* service = new rpc::ProfileRpc;
  const auto first = Open(*service, 9, recording_);
  const auto second = Open(*service, 10, second_recording);
  const auto third = Open(*service, 11, third_recording);

  delete service;

  EXPECT_EQ(g_reports, 1);
}

TEST_F(ServiceTest, DeletingAServiceAfterItsStreamsIsNotReported) {
  auto* service = new rpc::ProfileRpc;
  for (int method : {9, 10, 11}) Open(*service, method, recording_)->OnCompleted();

  delete service;

  EXPECT_EQ(g_reports, 0);
}

TEST_F(ServiceTest, TheMemoryOfADeletedServiceIsKeptUntilItsStreamsAreGone) {
  auto* service = new rpc::ProfileRpc;
  const auto address = reinterpret_cast<std::uintptr_t>(service);
  auto stream = Open(*service, 10, recording_);
  delete service;

  auto next = std::make_unique<rpc::ProfileRpc>();
  EXPECT_NE(reinterpret_cast<std::uintptr_t>(next.get()), address);
  stream.reset();
  auto last = std::make_unique<rpc::ProfileRpc>();

  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(last.get()), address);
}

TEST_F(ServiceTest, AServiceOnTheStackIsHeldWithoutBookkeeping) {
  std::unique_ptr<AbstractStream> stream;
  {
    rpc::ProfileRpc service;
    EXPECT_FALSE(IsProtected(&service));
    stream = Open(service, 9, recording_);
  }

  stream.reset();

  EXPECT_EQ(g_reports, 0);
}

TEST_F(ServiceTest, ServicesMadeWithNewAreProtected) {
  const auto plain = std::make_unique<rpc::ProfileRpc>();
  const std::unique_ptr<rpc::ProfileRpc> nothrow(new (std::nothrow) rpc::ProfileRpc);

  EXPECT_TRUE(IsProtected(plain.get()));
  EXPECT_TRUE(IsProtected(nothrow.get()));
}

TEST_F(ServiceTest, AServiceCanBeMadeInPlace) {
  alignas(rpc::ProfileRpc) unsigned char storage[sizeof(rpc::ProfileRpc)];

  auto* service = new (storage) rpc::ProfileRpc;

  EXPECT_EQ(static_cast<void*>(service), storage);
  service->~ProfileRpc();
}

TEST_F(ServiceTest, AServiceCanBeOverAligned) {
  struct alignas(128) Aligned : rpc::ProfileRpc {};

  const auto service = std::make_unique<Aligned>();

  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(service.get()) % 128, 0u);
}

TEST_F(ServiceTest, ServicesCanBeMadeAsAnArray) {
  const std::unique_ptr<rpc::ProfileRpc[]> services(new rpc::ProfileRpc[3]);

  EXPECT_EQ(services[2].GetDescriptor(), rpc::ProfileRpc::descriptor());
}

}  // namespace
}  // namespace varnic
