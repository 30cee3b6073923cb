#include "core/net/client_frames.h"

namespace varnic::net {
namespace {

// The head of a frame has nine bytes, and the scanner may want one more.
constexpr std::size_t kEndOfHead = 2;

}  // namespace

ClientFrames::Findings ClientFrames::Inspect(std::string_view bytes, FrameGuard::Time now,
                                             absl::FunctionRef<bool(int32_t)> is_answered) {
  Findings findings;
  findings.sound_bytes = bytes.size();
  std::string_view rest = bytes;
  while (const FrameHead* frame = scanner_.Next(rest)) {
    findings.broken_rule = floods_.OnFrame(*frame, now, is_answered);
    if (findings.broken_rule.has_value()) break;
    // A flood behind a fault counts as one all the same.
    if (findings.fault.has_value()) continue;
    findings.fault = protocol_.OnFrame(*frame);
    if (!findings.fault.has_value()) continue;
    const std::size_t scanned = bytes.size() - rest.size();
    findings.sound_bytes = scanned < kEndOfHead ? 0 : scanned - kEndOfHead;
  }
  return findings;
}

}  // namespace varnic::net
