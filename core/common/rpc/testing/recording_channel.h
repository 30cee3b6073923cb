#ifndef CORE_COMMON_RPC_TESTING_RECORDING_CHANNEL_H_
#define CORE_COMMON_RPC_TESTING_RECORDING_CHANNEL_H_

#include <vector>

#include "core/common/rpc/stream_channel.h"
#include "rpc/transport/stream_message.pb.h"

namespace varnic::testing {

// The transport's end of one stream, for the unit tests of a host: records what the stream does
// with its channel. Must outlive the channel that it opened, and the stream that holds it.
class RecordingChannel {
 public:
  RecordingChannel() = default;
  RecordingChannel(const RecordingChannel&) = delete;
  RecordingChannel& operator=(const RecordingChannel&) = delete;

  // The one live channel of this recorder. Fatal while an earlier one is open.
  StreamChannel Open();

  // What was written so far; an event as an envelope with its payload.
  const std::vector<::rpc::transport::StreamMessage>& sent() const { return sent_; }
  // How often the stream that holds the channel called Complete().
  int completions() const { return completions_; }
  // From Open() until Complete(), or until the last live handle is gone.
  bool open() const { return live_ != nullptr; }

 private:
  class Recorder;

  std::vector<::rpc::transport::StreamMessage> sent_;
  int completions_ = 0;
  const Recorder* live_ = nullptr;
};

}  // namespace varnic::testing

#endif  // CORE_COMMON_RPC_TESTING_RECORDING_CHANNEL_H_
