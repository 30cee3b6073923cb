#ifndef BENCH_SIDE_BY_SIDE_MEASUREMENT_H_
#define BENCH_SIDE_BY_SIDE_MEASUREMENT_H_

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace varnic::bench {

std::int64_t NowNs();
// Of all threads of a process, user and system time; 0 is this process.
std::int64_t CpuNs(pid_t process);
// Anonymous memory of a process that is resident: its heap and stacks, and what it wrote to.
std::int64_t ResidentBytes(pid_t process);

// Ends the program with a line on stderr that says why.
[[noreturn]] void Fail(const std::string& text);

// One measurement of one server: counts what happens between Begin() and End(), and prints it as
// one line of JSON.
class Measurement {
 public:
  explicit Measurement(pid_t server) : server_(server) {}

  void Begin();
  void Count(std::int64_t latency_ns) {
    ++count_;
    latencies_.push_back(latency_ns);
  }
  void Count() { ++count_; }
  void CountMany(std::int64_t count) { count_ += count; }
  // Whether it may end: `end_ns` has come, and there is something to tell of, which may take longer
  // on a busy machine.
  bool MayEnd(std::int64_t end_ns) const { return count_ > 0 && NowNs() >= end_ns; }
  void End();

  std::int64_t count() const { return count_; }
  // A figure besides those that are always there.
  void Note(const std::string& name, double value) { notes_.emplace_back(name, value); }
  void NoteLatencies();
  // What went on per second, and what one of it cost.
  void NoteRate();
  void Print() const;

 private:
  double Percentile(double share) const;

  const pid_t server_;
  std::int64_t count_ = 0;
  std::int64_t began_ = 0;
  std::int64_t server_cpu_ = 0;
  std::int64_t own_cpu_ = 0;
  std::int64_t wall_ = 0;
  std::vector<std::int64_t> latencies_;
  std::vector<std::pair<std::string, double>> notes_;
};

}  // namespace varnic::bench

#endif  // BENCH_SIDE_BY_SIDE_MEASUREMENT_H_
