#ifndef CORE_NET_ASIO_H_
#define CORE_NET_ASIO_H_

// How this room includes Asio, which no header of another room does. Asio is used with error codes
// only, and what it would throw all the same (a failure to make an epoll instance, say) is fatal.

// ThreadSanitizer does not know fences; what they order, Asio's mutexes order as well.
#if defined(__SANITIZE_THREAD__)
#define ASIO_DISABLE_FENCED_BLOCK
#endif

#include <asio/basic_socket_acceptor.hpp>
#include <asio/basic_waitable_timer.hpp>
#include <asio/generic/stream_protocol.hpp>
#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/local/stream_protocol.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/post.hpp>
#include <asio/signal_set.hpp>

#include "core/common/rpc/fatal.h"

namespace asio::detail {

template <typename Exception>
void throw_exception(const Exception& exception) {
  VARNIC_FATAL(exception.what());
}

}  // namespace asio::detail

#endif  // CORE_NET_ASIO_H_
