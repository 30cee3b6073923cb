#include "core/net/edge/connection_cap.h"

#include <sys/resource.h>

#include <algorithm>
#include <cstdint>
#include <string_view>

#include "core/net/edge/edge_counters.h"

namespace varnic::net {
namespace {

constexpr std::size_t kMostReserved = 256;

constexpr char kSettings = 0x4;
constexpr char kGoaway = 0x7;
constexpr char kEnhanceYourCalm = 0xb;

// A frame of the connection (RFC 9113, section 4.1).
std::string Frame(char type, std::string_view payload) {
  std::string frame = {0, 0, static_cast<char>(payload.size()), type, 0, 0, 0, 0, 0};
  return frame.append(payload);
}

std::string MakeRefusal() {
  std::string goaway = {0, 0, 0, 0, 0, 0, 0, kEnhanceYourCalm};
  goaway.append(RuleName(EdgeRule::kConnections));
  return Frame(kSettings, "") + Frame(kGoaway, goaway);
}

}  // namespace

std::size_t ConnectionCap(std::size_t max_connections) {
  rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return max_connections;
  return ConnectionCap(max_connections, limit.rlim_cur);
}

std::size_t ConnectionCap(std::size_t max_connections, std::size_t descriptors) {
  return std::min(max_connections, descriptors - std::min(descriptors / 4, kMostReserved));
}

const std::string& RefusalOfConnection() {
  static const std::string* const refusal = new std::string(MakeRefusal());
  return *refusal;
}

}  // namespace varnic::net
