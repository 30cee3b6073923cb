#ifndef CORE_SERVER_METRICS_TRAFFIC_H_
#define CORE_SERVER_METRICS_TRAFFIC_H_

#include <cstdint>
#include <memory>

#include "core/net/byte_stream.h"

namespace varnic {

// Bytes of connections, before encryption. One thread only.
struct Traffic {
  std::uint64_t received = 0;
  std::uint64_t sent = 0;
};

// `stream`, whose bytes are from now on added to `traffic`, which outlives it.
std::unique_ptr<net::ByteStream> CountTraffic(std::unique_ptr<net::ByteStream> stream,
                                              Traffic& traffic);

}  // namespace varnic

#endif  // CORE_SERVER_METRICS_TRAFFIC_H_
