#ifndef CORE_HOST_BROWSER_CUT_MESSAGE_H_
#define CORE_HOST_BROWSER_CUT_MESSAGE_H_

#include "absl/status/statusor.h"
#include "core/host/browser/devtools_message.h"
#include "core/host/browser/nul_message_reader.h"

namespace varnic::host {

// What can be known of a message that is too long. Pages can make such: what one uploads is in the
// event that its request is paused, which has to be answered all the same, and the name of a frame
// in that of its navigation.
//
//   an answer                      that answer, with RESOURCE_EXHAUSTED
//   an event of "Fetch.", "Page."  with what stands whole in its beginning: the params, and the
//                                  objects in them as far as they go; what is further in, all of it
//                                  or nothing
//   all others                     INVALID_ARGUMENT
//
// Any thread.
absl::StatusOr<DevToolsMessage> ReadCutMessage(const NulMessage& message);

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_CUT_MESSAGE_H_
