#include "core/common/rpc/testing/recording_channel.h"

#include <memory>

#include "core/common/rpc/fatal.h"

namespace varnic::testing {

class RecordingChannel::Recorder : public StreamChannel::Transport {
 public:
  explicit Recorder(RecordingChannel& recording) : recording_(recording) {
    recording_.live_ = this;
  }
  ~Recorder() override { Close(); }

  bool Send(const ::rpc::transport::StreamMessage& envelope) override {
    if (!IsPeerPresent()) return false;
    recording_.sent_.push_back(envelope);
    return true;
  }
  void Complete() override {
    Close();
    ++recording_.completions_;
  }
  bool IsPeerPresent() const override { return recording_.live_ == this; }

 private:
  // A recorder that was completed earlier may still be held when the next one is open.
  void Close() {
    if (recording_.live_ == this) recording_.live_ = nullptr;
  }

  RecordingChannel& recording_;
};

StreamChannel RecordingChannel::Open() {
  VARNIC_CHECK(!open());
  return StreamChannel(std::make_unique<Recorder>(*this));
}

}  // namespace varnic::testing
