#ifndef CORE_SERVER_PROTOBUF_LOG_H_
#define CORE_SERVER_PROTOBUF_LOG_H_

#include <cstdint>

namespace varnic {

// What protobuf itself has to say, above all against texts of peers that are not UTF-8. It would
// write a line about each, as often as a peer likes. Instead, they are counted, and at most one
// line a second goes to this process's own log. Any thread.
class ProtobufLog {
 public:
  // Takes over protobuf's log handler, for good, and for the whole process; only the first call
  // does anything. Every RpcServer makes one. A host that wants a handler of its own sets it later.
  // What protobuf deems fatal goes to the former handler, and ends the process as before.
  static void Install();

  // Over the life of the process, since Install().
  static std::uint64_t complaints();
};

}  // namespace varnic

#endif  // CORE_SERVER_PROTOBUF_LOG_H_
