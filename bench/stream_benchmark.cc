// What the stream classes do with a client's message, without a wire.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <string>

#include "core/common/rpc/stream/callback_stream.h"
#include "core/common/rpc/stream/event_stream.h"
#include "core/common/rpc/testing/recording_channel.h"
#include "rpc/profile/profile.rpc.h"

namespace varnic {
namespace {

using FileStream = CallbackStream<rpc::CanAccessFile>;
using NetworkStream = EventStream<rpc::NetworkChanged>;

// A stream of `method` with a channel that records.
template <class Stream>
class OpenStream {
 public:
  explicit OpenStream(const std::string& method) {
    stream_.reset(static_cast<Stream*>(
        host_.OpenStream(host_.GetDescriptor()->FindMethodByName(method), channel_.Open())));
  }
  ~OpenStream() { stream_->OnCompleted(); }

  Stream* operator->() { return stream_.get(); }

 private:
  rpc::ProfileRpc host_;
  testing::RecordingChannel channel_;
  std::unique_ptr<Stream> stream_;
};

// Through the operations, not through OnNext(): a subscription message is never freed, and a
// benchmark sends millions.
void BM_SubscribeAndUnsubscribe(benchmark::State& state) {
  OpenStream<NetworkStream> stream("WhenNetworkChanged");
  ProfileId key;
  for (int64_t i = 0; i < state.range(0); ++i) {
    key.set_value("other " + std::to_string(i));
    stream->Subscribe(key);
  }
  key.set_value("Profile 1");
  for (auto _ : state) {
    stream->Subscribe(key);
    stream->Unsubscribe(key);
  }
}
BENCHMARK(BM_SubscribeAndUnsubscribe)->ArgName("other_keys")->Arg(0)->Arg(1000);

// Registering a question, as the host's side does it, and the arrival of its answer.
void BM_DeliverAnswer(benchmark::State& state) {
  OpenStream<FileStream> stream("OnCanAccessFile");
  rpc::CanAccessFile answer;
  answer.mutable_profile_id()->set_value("Profile 1");
  answer.mutable_response()->set_allow(true);
  rpc::transport::StreamMessage envelope;
  envelope.set_payload(answer.SerializeAsString());
  int64_t answered = 0;
  for (auto _ : state) {
    envelope.set_call_id(envelope.call_id() + 1);
    auto entry = stream->pending_calls_.find(&answer.profile_id());
    if (entry == stream->pending_calls_.end()) {
      entry = stream->pending_calls_.try_emplace(CloneKey(answer.profile_id())).first;
    }
    entry->second[envelope.call_id()] = {
        [&answered](const rpc::CanAccessFile& message) { answered += message.response().allow(); },
        [](int /*code*/) {}};
    stream->OnNext(&envelope);
  }
  if (answered != static_cast<int64_t>(state.iterations())) {
    state.SkipWithError("an answer was lost");
  }
}
BENCHMARK(BM_DeliverAnswer);

}  // namespace
}  // namespace varnic
