#include "core/common/rpc/abstract_stream.h"

#include <utility>

namespace varnic {

AbstractStream::AbstractStream(StreamChannel channel) : channel_(std::move(channel)) {}
AbstractStream::~AbstractStream() = default;

void AbstractStream::Complete() {
  channel_.Complete();
}

}  // namespace varnic
