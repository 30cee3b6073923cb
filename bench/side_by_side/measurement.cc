#include "bench/side_by_side/measurement.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>

namespace varnic::bench {
namespace {

std::int64_t ReadClock(clockid_t clock) {
  timespec time{};
  if (clock_gettime(clock, &time) != 0) Fail("cannot read a clock: is the server gone?");
  return time.tv_sec * 1'000'000'000 + time.tv_nsec;
}

}  // namespace

std::int64_t NowNs() {
  return ReadClock(CLOCK_MONOTONIC);
}

std::int64_t CpuNs(pid_t process) {
  clockid_t clock{};
  if (clock_getcpuclockid(process, &clock) != 0) Fail("the server has no CPU clock: is it gone?");
  return ReadClock(clock);
}

std::int64_t ResidentBytes(pid_t process) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  std::string word;
  while (status >> word) {
    std::int64_t kilobytes = 0;
    if (word == "RssAnon:" && status >> kilobytes) return kilobytes * 1024;
  }
  Fail("cannot read the server's memory");
}

void Fail(const std::string& text) {
  std::fprintf(stderr, "%s\n", text.c_str());
  std::exit(1);
}

void Measurement::Begin() {
  count_ = 0;
  latencies_.clear();
  server_cpu_ = CpuNs(server_);
  own_cpu_ = CpuNs(0);
  began_ = NowNs();
}

void Measurement::End() {
  wall_ = NowNs() - began_;
  own_cpu_ = CpuNs(0) - own_cpu_;
  server_cpu_ = CpuNs(server_) - server_cpu_;
  std::sort(latencies_.begin(), latencies_.end());
}

double Measurement::Percentile(double share) const {
  if (latencies_.empty()) Fail("nothing was measured");
  const auto last = static_cast<double>(latencies_.size() - 1);
  return static_cast<double>(latencies_[static_cast<std::size_t>(last * share)]) / 1e3;
}

void Measurement::NoteLatencies() {
  Note("p50_us", Percentile(0.5));
  Note("p99_us", Percentile(0.99));
}

void Measurement::NoteRate() {
  if (count_ == 0) Fail("nothing was measured");
  const auto count = static_cast<double>(count_);
  const auto wall = static_cast<double>(wall_);
  Note("per_second", count / wall * 1e9);
  Note("server_cpu_us", static_cast<double>(server_cpu_) / count / 1e3);
  Note("server_busy", static_cast<double>(server_cpu_) / wall);
  Note("load_busy", static_cast<double>(own_cpu_) / wall);
}

void Measurement::Print() const {
  std::printf("{\"count\": %lld", static_cast<long long>(count_));
  for (const auto& [name, value] : notes_) std::printf(", \"%s\": %.6g", name.c_str(), value);
  std::printf("}\n");
}

}  // namespace varnic::bench
