#ifndef CORE_SERVER_METRICS_CALL_COUNTERS_H_
#define CORE_SERVER_METRICS_CALL_COUNTERS_H_

#include <google/protobuf/descriptor.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "absl/container/flat_hash_map.h"
#include "absl/status/status.h"
#include "absl/time/time.h"
#include "core/net/grpc_server_connection.h"

namespace varnic {

// How many of the durations that it was given lie in which bucket. One thread only.
class DurationHistogram {
 public:
  // The longest duration of each bucket, in seconds. One bucket more takes what is longer.
  static constexpr std::array<double, 17> kBounds = {0.0001, 0.00025, 0.0005, 0.001, 0.0025, 0.005,
                                                     0.01,   0.025,   0.05,   0.1,   0.25,   0.5,
                                                     1,      2.5,     5,      10,    30};

  void Add(absl::Duration duration);

  const std::array<std::uint64_t, kBounds.size() + 1>& buckets() const { return buckets_; }
  double sum_seconds() const { return sum_seconds_; }

 private:
  std::array<std::uint64_t, kBounds.size() + 1> buckets_ = {};
  double sum_seconds_ = 0;
};

// How the calls that it observes have ended, and how long they took. Takes memory at the first end
// with each code, and none after. RPC thread only.
class CallEnds final : public net::CallObserver {
 public:
  static constexpr std::size_t kCodes = 17;  // gRPC's, from OK.

  void OnCallEnded(absl::StatusCode code, absl::Duration duration) override;

  const std::array<std::uint64_t, kCodes>& by_code() const { return by_code_; }
  std::uint64_t total() const;
  // Null for a code with which nothing has ended.
  const DurationHistogram* durations(std::size_t code) const { return durations_[code].get(); }

 private:
  std::array<std::uint64_t, kCodes> by_code_ = {};
  std::array<std::unique_ptr<DurationHistogram>, kCodes> durations_;
};

// What is counted of one method.
struct MethodCounters {
  std::uint64_t streams_open() const { return streams_opened - streams.total(); }
  // A stream takes over a call: who is to observe its end.
  CallEnds& OpenStream() {
    ++streams_opened;
    return streams;
  }

  std::string label;  // Its path on the wire: "/rpc.Profile/Path".
  bool is_stream = false;
  CallEnds calls;  // But for those that became streams.
  CallEnds streams;
  std::uint64_t streams_opened = 0;
};

// The calls of one server. Room for every method is made when its service is added, what is no
// method of any counts as one, and codes are few, so what clients send takes hardly any memory
// here. RPC thread only.
class CallCounters {
 public:
  CallCounters();

  // Once for each service.
  void Add(const google::protobuf::ServiceDescriptor& service);

  // What is counted of the method at `path`; valid as long as the counters.
  MethodCounters& Of(std::string_view path);
  // For calls of which not even the method is known.
  CallEnds& ForUnknown() { return methods_.front()->calls; }

  // In the order in which they were added, after the unknown one.
  const std::vector<std::unique_ptr<MethodCounters>>& methods() const { return methods_; }

 private:
  std::vector<std::unique_ptr<MethodCounters>> methods_;
  absl::flat_hash_map<std::string, MethodCounters*> by_path_;
};

}  // namespace varnic

#endif  // CORE_SERVER_METRICS_CALL_COUNTERS_H_
