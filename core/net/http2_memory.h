#ifndef CORE_NET_HTTP2_MEMORY_H_
#define CORE_NET_HTTP2_MEMORY_H_

#include <nghttp2/nghttp2.h>

namespace varnic::net {

// Where nghttp2 gets its memory: the BlockPool. Any thread; what one has allocated another may
// free.
nghttp2_mem Http2Memory();

}  // namespace varnic::net

#endif  // CORE_NET_HTTP2_MEMORY_H_
