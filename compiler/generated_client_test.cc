// A generated client by itself: its file has no message of its own, and stands in a static library,
// so nothing but the client names what registers the file.

#include <google/protobuf/descriptor.h>
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "core/client/client.h"
#include "core/net/event_loop.h"
#include "no_package.client.h"

namespace varnic {
namespace {

void CallNobody() {
  net::EventLoop loop;
  Client client(loop, "unix:/nobody/listens/here");
  Odd_namesClient odd_names(client);

  const auto answer = odd_names.doneAndWait({}, absl::InfiniteDuration());

  EXPECT_EQ(answer.status().code(), absl::StatusCode::kUnavailable) << answer.status();
}

TEST(GeneratedClientTest, FindsItsMethodsOnWhicheverThreadIsFirst) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) threads.emplace_back(CallNobody);
  for (std::thread& thread : threads) thread.join();

  const auto* pool = google::protobuf::DescriptorPool::generated_pool();
  EXPECT_NE(pool->FindServiceByName("Odd_names"), nullptr);
}

TEST(GeneratedClientTest, CopyCallsTheSameServer) {
  net::EventLoop loop;
  Client client(loop, "no target");
  const Odd_namesClient odd_names(client);
  Odd_namesClient copy = odd_names;
  absl::Status status;
  bool ended = false;

  copy.request({}, absl::InfiniteDuration(), [&](auto answer) {
    status = answer.status();
    ended = true;
  });
  EXPECT_FALSE(ended);
  loop.RunUntil([&] { return ended; });

  EXPECT_EQ(status.code(), absl::StatusCode::kInvalidArgument) << status;
}

}  // namespace
}  // namespace varnic
