#include "core/host/browser/nul_message_reader.h"

#include <algorithm>
#include <utility>

namespace varnic::host {
namespace {

std::string_view EndOf(std::string_view text, size_t bytes) {
  return text.substr(text.size() - std::min(text.size(), bytes));
}

}  // namespace

void NulMessageReader::Keep(std::string_view piece) {
  const bool is_too_long =
      !ending_.empty() || piece.size() > max_message_bytes_ - unfinished_.size();
  if (!is_too_long) {
    unfinished_.append(piece);
    return;
  }
  if (ending_.empty()) {
    ending_ = EndOf(unfinished_, kEndingBytes);
    const size_t kept = std::min(kTextBytes, max_message_bytes_);
    if (unfinished_.size() < kept) {
      unfinished_.append(piece.substr(0, kept - unfinished_.size()));
    } else {
      unfinished_ = unfinished_.substr(0, kept);  // The memory of the rest goes.
    }
  }
  ending_.append(EndOf(piece, kEndingBytes));
  ending_.erase(0, ending_.size() - std::min(ending_.size(), kEndingBytes));
}

void NulMessageReader::Read(std::string_view bytes,
                            absl::FunctionRef<bool(const NulMessage&)> on_message) {
  while (!bytes.empty()) {
    const size_t end = bytes.find('\0');
    const std::string_view piece = bytes.substr(0, end);
    const bool is_complete = end != std::string_view::npos;
    bytes.remove_prefix(is_complete ? end + 1 : bytes.size());
    if (is_complete && unfinished_.empty() && piece.size() <= max_message_bytes_) {
      if (!piece.empty() && !on_message({piece, {}})) return;
      continue;
    }
    Keep(piece);
    if (!is_complete) return;
    // Taken out first: the callback may destroy this reader, and a long message's memory goes.
    const std::string text = std::exchange(unfinished_, {});
    const std::string ending = std::exchange(ending_, {});
    if (!on_message({text, ending})) return;
  }
}

}  // namespace varnic::host
