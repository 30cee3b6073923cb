// Messages cut out of arbitrary bytes, whole and in pieces: splitting must never matter.

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "core/common/rpc/fatal.h"
#include "core/net/message_framing.h"
#include "fuzz/fuzz_input.h"

namespace varnic::net {
namespace {

// What a string may have reserved beyond what it holds: it doubles.
constexpr size_t kSpareCapacity = 64;

struct Outcome {
  std::vector<std::pair<std::string, bool>> messages;
  absl::Status read;
  absl::Status finished;
};

template <class NextPieceSize>
Outcome ReadAll(std::string_view bytes, size_t max_message_size, NextPieceSize next_piece_size) {
  Outcome outcome;
  MessageReader reader(max_message_size);
  const auto keep = [&](std::string_view message, bool compressed) {
    VARNIC_CHECK(message.size() <= max_message_size);
    outcome.messages.emplace_back(message, compressed);
    return absl::OkStatus();
  };
  size_t received = 0;
  while (!bytes.empty()) {
    const std::string_view piece = bytes.substr(0, next_piece_size());
    bytes.remove_prefix(piece.size());
    received += piece.size();
    outcome.read = reader.Read(piece, keep);
    VARNIC_CHECK(reader.buffer_capacity() <=
                 2 * std::min(max_message_size, received) + kSpareCapacity);
  }
  outcome.finished = reader.Finish();
  return outcome;
}

void CheckSplitting(const uint8_t* data, size_t size) {
  fuzz::FuzzInput input(data, size);
  const size_t max_message_size = size_t{1} << input.TakeBelow(16);
  fuzz::FuzzInput splits = input;
  splits.TakeByte();
  const std::string_view bytes = input.TakeRest();

  const Outcome whole = ReadAll(bytes, max_message_size, [&] { return bytes.size(); });
  const Outcome pieces = ReadAll(bytes, max_message_size, [&] { return splits.TakeBelow(32) + 1; });

  VARNIC_CHECK(whole.messages == pieces.messages);
  VARNIC_CHECK(whole.read == pieces.read);
  VARNIC_CHECK(whole.finished == pieces.finished);
}

}  // namespace
}  // namespace varnic::net

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  varnic::net::CheckSplitting(data, size);
  return 0;
}
