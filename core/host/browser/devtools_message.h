#ifndef CORE_HOST_BROWSER_DEVTOOLS_MESSAGE_H_
#define CORE_HOST_BROWSER_DEVTOOLS_MESSAGE_H_

#include <string>
#include <string_view>
#include <variant>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "nlohmann/json.hpp"

// The messages of the Chrome DevTools Protocol, as they stand on the pipe. Any thread.

namespace varnic::host {

// What came of the command `id`: its result, which is an object, or why there is none.
//
//   code -32001, no such session       NOT_FOUND
//   code -32601, no such method        UNIMPLEMENTED
//   code -32600, -32602, bad command   INVALID_ARGUMENT
//   code -32603, or no proper answer   INTERNAL
//   any other                          UNKNOWN
struct DevToolsAnswer {
  int id = 0;
  absl::StatusOr<nlohmann::json> result;
};

struct DevToolsEvent {
  std::string method;
  std::string session_id;  // Empty: of the browser itself.
  nlohmann::json params;   // An object.
};

// A browser that cannot read a command may not know its id.
struct DevToolsComplaint {
  absl::Status error;
};

using DevToolsMessage = std::variant<DevToolsAnswer, DevToolsEvent, DevToolsComplaint>;

// Reads one message of a browser, without its NUL. INVALID_ARGUMENT if it is none: not JSON, nested
// too deeply, of an unknown form. Half of a surrogate pair, which JavaScript allows and Unicode
// does not, becomes U+FFFD.
absl::StatusOr<DevToolsMessage> ParseDevToolsMessage(std::string_view text);

// A command for the browser itself, or for a session of it, with its NUL. Bytes in `params` that
// are not UTF-8 become U+FFFD.
std::string SerializeDevToolsCommand(int id, const std::string& method,
                                     const nlohmann::json& params, const std::string& session_id);

}  // namespace varnic::host

#endif  // CORE_HOST_BROWSER_DEVTOOLS_MESSAGE_H_
