#ifndef CORE_COMMON_RPC_SERVICE_H_
#define CORE_COMMON_RPC_SERVICE_H_

#include <google/protobuf/service.h>

#include <cstddef>
#include <new>

#include "core/common/rpc/stream_channel.h"

namespace varnic {

class AbstractStream;

// The base of every generated service: protobuf's generic service interface, and the opening of
// streams. Stateless itself.
//
// The service must outlive every stream that it opened; streams hold it with a raw_ptr. A service
// made with `new` lives in the protected pool, where a breach of that rule is found out (see
// base/README.md); one on the stack or in static storage does not.
//
// All calls into a service come one at a time, on the RPC thread. GetDescriptor() alone may be
// called from any thread.
class Service : public google::protobuf::Service {
 public:
  Service();
  ~Service() override;

  // Creates the stream that serves a streaming method; the caller owns it and feeds it. Fatal for a
  // unary method. The stream holds `channel`: the caller's own object is empty afterwards.
  virtual AbstractStream* OpenStream(const google::protobuf::MethodDescriptor* method,
                                     StreamChannel channel) = 0;

  static void* operator new(std::size_t size);
  static void operator delete(void* memory) noexcept;
  // Declared because a class's own operator new hides the global forms.
  static void* operator new(std::size_t size, void* place) noexcept {
    return ::operator new(size, place);
  }
  static void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    return operator new(size);
  }
  static void* operator new(std::size_t size, std::align_val_t alignment) {
    return ::operator new(size, alignment);
  }
  static void operator delete(void* memory, std::align_val_t alignment) noexcept {
    ::operator delete(memory, alignment);
  }
};

}  // namespace varnic

#endif  // CORE_COMMON_RPC_SERVICE_H_
