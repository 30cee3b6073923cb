// Hash and equality of registry keys, by the length of the profile's id.

#include <benchmark/benchmark.h>

#include <string>

#include "core/common/rpc/message_hash.h"
#include "rpc/identifiers.pb.h"

namespace varnic {
namespace {

ProfileId Key(const benchmark::State& state) {
  ProfileId key;
  key.set_value(std::string(static_cast<std::size_t>(state.range(0)), 'p'));
  return key;
}

void BM_HashKey(benchmark::State& state) {
  const ProfileId key = Key(state);
  for (auto _ : state) benchmark::DoNotOptimize(MessageHash()(&key));
}
BENCHMARK(BM_HashKey)->Arg(0)->Arg(9)->Arg(64)->Arg(1024);

void BM_EqualKeys(benchmark::State& state) {
  const ProfileId a = Key(state);
  const ProfileId b = Key(state);
  for (auto _ : state) benchmark::DoNotOptimize(MessageEqual()(&a, &b));
}
BENCHMARK(BM_EqualKeys)->Arg(0)->Arg(9)->Arg(64)->Arg(1024);

}  // namespace
}  // namespace varnic
