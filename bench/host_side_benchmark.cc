// What the host's side of the streams costs, without a wire: publishing an event, asking a question
// and taking its answer.

#include <benchmark/benchmark.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "absl/time/time.h"
#include "core/common/rpc/shared_event.h"
#include "core/common/rpc/stream/callback_caller.h"
#include "core/common/rpc/stream/event_publisher.h"
#include "core/common/rpc/stream_channel.h"
#include "core/common/rpc/testing/fake_scheduler.h"
#include "rpc/profile/profile.rpc.h"

namespace varnic {
namespace {

using FileStream = CallbackStream<rpc::CanAccessFile>;
using NetworkStream = EventStream<rpc::NetworkChanged>;

// Holds the last event, as a queue would; forgets everything else.
class HoldingTransport final : public StreamChannel::Transport {
 public:
  bool Send(const rpc::transport::StreamMessage& envelope) override {
    benchmark::DoNotOptimize(envelope.call_id());
    return true;
  }
  bool SendEvent(const SharedEvent& event) override {
    waiting_ = std::make_unique<SharedEvent>(event);
    return true;
  }
  void Complete() override {}
  bool IsPeerPresent() const override { return true; }

 private:
  std::unique_ptr<SharedEvent> waiting_;
};

template <class Stream>
std::unique_ptr<Stream> Open(rpc::ProfileRpc& host, const std::string& method) {
  return std::unique_ptr<Stream>(
      static_cast<Stream*>(host.OpenStream(host.GetDescriptor()->FindMethodByName(method),
                                           StreamChannel(std::make_unique<HoldingTransport>()))));
}

ProfileId Key() {
  ProfileId key;
  key.set_value("Profile 1");
  return key;
}

// items_per_second is deliveries.
void BM_Publish(benchmark::State& state) {
  rpc::ProfileRpc host;
  EventPublisher<rpc::NetworkChanged> publisher;
  std::vector<std::unique_ptr<NetworkStream>> streams;
  for (int64_t i = 0; i < state.range(0); ++i) {
    streams.push_back(Open<NetworkStream>(host, "WhenNetworkChanged"));
    streams.back()->Subscribe(Key());
  }
  rpc::NetworkChanged event;
  event.set_online(true);
  event.add_interfaces()->set_name("eth0");
  std::size_t delivered = 0;
  for (auto _ : state) delivered += publisher.Publish(Key(), event);
  state.SetItemsProcessed(static_cast<int64_t>(delivered));
  for (const auto& stream : streams) stream->OnCompleted();
}
BENCHMARK(BM_Publish)->ArgName("subscribers")->Arg(1)->Arg(1000);

// One question with a deadline, and its answer. `open` others wait all the time.
void BM_CallAndAnswer(benchmark::State& state) {
  rpc::ProfileRpc host;
  testing::FakeScheduler scheduler;
  CallbackCaller<rpc::CanAccessFile> caller(scheduler);
  const auto stream = Open<FileStream>(host, "OnCanAccessFile");
  stream->Subscribe(Key());
  rpc::CanAccessFile::Request request;
  request.set_path("/home/somebody/Downloads/report.pdf");
  int64_t answered = 0;
  const auto ask = [&] {
    return caller.Call(
        Key(), request,
        [&answered](const rpc::CanAccessFile::Response& response) { answered += response.allow(); },
        [](const absl::Status& /*status*/) {}, absl::Seconds(30));
  };
  for (int64_t i = 0; i < state.range(0); ++i) ask();
  rpc::CanAccessFile answer;
  *answer.mutable_profile_id() = Key();
  answer.mutable_response()->set_allow(true);
  rpc::transport::StreamMessage envelope;
  envelope.set_payload(answer.SerializeAsString());
  for (auto _ : state) {
    envelope.set_call_id(ask());
    stream->OnNext(&envelope);
  }
  if (answered != static_cast<int64_t>(state.iterations())) {
    state.SkipWithError("an answer was lost");
  }
  stream->OnCompleted();
}
BENCHMARK(BM_CallAndAnswer)->ArgName("open")->Arg(0)->Arg(1000);

}  // namespace
}  // namespace varnic
