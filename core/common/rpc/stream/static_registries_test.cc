#include <gmock/gmock.h>
#include <google/protobuf/descriptor.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>

#include "core/common/rpc/observed_key_test_support.h"
#include "core/common/rpc/stream/profile_streams_test_support.h"

namespace varnic {
namespace {

using testing::AuthenticationStream;
using testing::FileAccessStream;
using testing::KeyLog;
using testing::NetworkStream;
using testing::ObservedKey;
using testing::Profile;
using testing::ServedStream;

constexpr int kExitCodeOfTheReport = 17;

// Made before every ordinary static object of the program, and so destroyed after them: after the
// registries.
class ReportAtTheVeryEnd {
 public:
  ~ReportAtTheVeryEnd() {
    if (log_ == nullptr) return;
    std::fprintf(stderr, "%zu keys deleted, %d alive", log_->deleted.size(), log_->live);
    _exit(kExitCodeOfTheReport);
  }
  void Watch(const KeyLog& log) { log_ = &log; }

 private:
  const KeyLog* log_ = nullptr;
};

__attribute__((init_priority(101))) ReportAtTheVeryEnd g_report;

// What a registry looked like when main() began.
struct Presence {
  std::size_t entries;
  std::size_t buckets;
  float max_load_factor;
};

template <class Registry>
Presence Look(const Registry& registry) {
  return {registry.size(), registry.bucket_count(), registry.max_load_factor()};
}

Presence g_network;
Presence g_files;
Presence g_authentication;
bool g_file_was_in_the_pool;

void LookAtEverything() {
  g_network = Look(NetworkStream::stream_map_);
  g_files = Look(FileAccessStream::stream_map_);
  g_authentication = Look(AuthenticationStream::stream_map_);
  g_file_was_in_the_pool = google::protobuf::DescriptorPool::generated_pool()->FindFileByName(
                               "rpc/profile/profile.proto") != nullptr;
}

TEST(StaticRegistriesTest, AreMadeEmptyBeforeTheProgramStarts) {
  for (const Presence& presence : {g_network, g_files, g_authentication}) {
    EXPECT_EQ(presence.entries, 0u);
    EXPECT_EQ(presence.buckets, 1u);  // The library's own way of having no bucket array.
    EXPECT_EQ(presence.max_load_factor, 1.0f);
  }
}

TEST(StaticRegistriesTest, TheServicesFileIsRegisteredBeforeTheProgramStarts) {
  EXPECT_TRUE(g_file_was_in_the_pool);
  EXPECT_NE(rpc::ProfileRpc::descriptor(), nullptr);
}

// Ends the process with a key in each registry.
[[noreturn]] void ExitWithKeysLeft() {
  static KeyLog log;
  static rpc::ProfileRpc service;
  g_report.Watch(log);
  ServedStream<NetworkStream> network(service);
  ServedStream<FileAccessStream> files(service);
  ServedStream<AuthenticationStream> authentication(service);
  const ObservedKey key(log, Profile("left over"));
  network->Subscribe(key);
  files->Subscribe(key);
  authentication->Subscribe(key);
  std::exit(EXIT_SUCCESS);
}

TEST(StaticRegistriesDeathTest, TheirDestructorsFreeNoKey) {
  // One more is alive: the caller's.
  EXPECT_EXIT(ExitWithKeysLeft(), ::testing::ExitedWithCode(kExitCodeOfTheReport),
              "0 keys deleted, 4 alive");
}

}  // namespace
}  // namespace varnic

// Looks before GoogleTest, or anything else, gets a chance to touch what it looks at.
int main(int argc, char** argv) {
  varnic::LookAtEverything();
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
