#include "core/host/browser/nul_message_reader.h"

#include <utility>

#include "absl/strings/str_cat.h"

namespace varnic::host {

absl::Status NulMessageReader::Read(std::string_view bytes,
                                    absl::FunctionRef<bool(std::string_view)> on_message) {
  while (!bytes.empty()) {
    const size_t end = bytes.find('\0');
    const std::string_view piece = bytes.substr(0, end);
    if (piece.size() > max_message_bytes_ - unfinished_.size()) {
      return absl::ResourceExhaustedError(
          absl::StrCat("the browser sent a message of more than ", max_message_bytes_, " bytes"));
    }
    if (end == std::string_view::npos) {
      unfinished_.append(piece);
      return absl::OkStatus();
    }
    bytes.remove_prefix(end + 1);
    if (unfinished_.empty()) {
      if (!piece.empty() && !on_message(piece)) return absl::OkStatus();
      continue;
    }
    // Taken out first: the callback may destroy this reader, and a long message's memory goes.
    std::string message = std::exchange(unfinished_, {});
    message.append(piece);
    if (!on_message(message)) return absl::OkStatus();
  }
  return absl::OkStatus();
}

}  // namespace varnic::host
