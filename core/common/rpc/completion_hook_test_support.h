#ifndef CORE_COMMON_RPC_COMPLETION_HOOK_TEST_SUPPORT_H_
#define CORE_COMMON_RPC_COMPLETION_HOOK_TEST_SUPPORT_H_

#include <functional>
#include <memory>
#include <utility>

#include "core/common/rpc/stream_channel.h"

namespace varnic::testing {

// A channel whose transport calls `on_complete`, once, when its stream completes it. The hook may
// destroy the stream, and the transport with it.
inline StreamChannel ChannelWithCompletionHook(std::function<void()> on_complete) {
  class HookedTransport final : public StreamChannel::Transport {
   public:
    explicit HookedTransport(std::function<void()> on_complete)
        : on_complete_(std::move(on_complete)) {}
    bool Send(const ::rpc::transport::StreamMessage& /*envelope*/) override { return false; }
    void Complete() override {
      const std::function<void()> on_complete = std::move(on_complete_);
      on_complete();
    }
    bool IsPeerPresent() const override { return false; }

   private:
    std::function<void()> on_complete_;
  };
  return StreamChannel(std::make_unique<HookedTransport>(std::move(on_complete)));
}

}  // namespace varnic::testing

#endif  // CORE_COMMON_RPC_COMPLETION_HOOK_TEST_SUPPORT_H_
