// The load generator for Cap'n Proto RPC, by its own client. Prints one line of JSON.

#include <capnp/rpc-twoparty.h>
#include <kj/async-io.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "bench/side_by_side/host.capnp.h"
#include "bench/side_by_side/load_options.h"
#include "bench/side_by_side/load_socket.h"
#include "bench/side_by_side/measurement.h"
#include "bench/side_by_side/scenario.h"

namespace varnic::bench {
namespace {

capnp::Data::Reader ToData(const std::string& bytes) {
  return {reinterpret_cast<const kj::byte*>(bytes.data()), bytes.size()};
}

// One connection, and the host at its other end.
struct Connection {
  explicit Connection(kj::Own<kj::AsyncIoStream> connected)
      : stream(kj::mv(connected)), client(*stream), host(client.bootstrap().castAs<Host>()) {}

  kj::Own<kj::AsyncIoStream> stream;
  capnp::TwoPartyClient client;
  Host::Client host;
};

class Load final : private kj::TaskSet::ErrorHandler {
 public:
  explicit Load(const LoadOptions& options) : options_(options), measurement_(options.server) {}

  void Run();

 private:
  class CountingSubscriber;
  class PromptAnswerer;

  void Connect(int count);
  void Wait(kj::Promise<void> promise) { promise.wait(io_.waitScope); }
  kj::Promise<void> After(double seconds) {
    return io_.provider->getTimer().afterDelay(static_cast<std::int64_t>(seconds * 1e9) *
                                               kj::NANOSECONDS);
  }
  void Measure() {
    Wait(After(options_.warm_up));
    measurement_.Begin();
    const std::int64_t end = NowNs() + static_cast<std::int64_t>(options_.seconds * 1e9);
    Wait(After(options_.seconds));
    while (!measurement_.MayEnd(end)) Wait(After(0.01));
    measurement_.End();
  }

  void MeasureUnary();
  void Call(Host::Client& host);
  void MeasureQuestions();
  void MeasureFanOut();
  bool Publish(Host::Client& host);
  void MeasureOpenClose();
  void OpenAndClose();
  void MeasureIdle();
  void CallOnEach();
  void SubscribeOnEach(int streams);

  void taskFailed(kj::Exception&& exception) override { Fail(exception.getDescription().cStr()); }

  const LoadOptions options_;
  const std::string message_ = std::string(kMessageBytes, 'm');
  Measurement measurement_;
  int subscribers_ = 0;
  int events_ = 0;
  std::int64_t last_event_ns_ = 0;
  kj::Own<kj::PromiseFulfiller<void>> all_came_;
  kj::AsyncIoContext io_ = kj::setupAsyncIo();
  std::vector<std::unique_ptr<Connection>> connections_;
  std::vector<Subscription::Client> subscriptions_;
  kj::TaskSet tasks_{*this};
};

class Load::CountingSubscriber final : public Subscriber::Server {
 public:
  explicit CountingSubscriber(Load& load) : load_(load) {}

 private:
  kj::Promise<void> onEvent(OnEventContext context) override {
    if (context.getParams().getEvent().size() != kMessageBytes) Fail("not the event");
    if (++load_.events_ == load_.subscribers_) {
      load_.last_event_ns_ = NowNs();
      load_.all_came_->fulfill();
    }
    return kj::READY_NOW;
  }

  Load& load_;
};

// The latency is that of the next question behind an answer.
class Load::PromptAnswerer final : public Answerer::Server {
 public:
  explicit PromptAnswerer(Load& load) : load_(load) {}

 private:
  kj::Promise<void> onQuestion(OnQuestionContext context) override {
    const std::int64_t now = NowNs();
    load_.measurement_.Count(now - answered_ns_);
    context.initResults(capnp::MessageSize{32, 0}).setAnswer(ToData(load_.message_));
    answered_ns_ = now;
    return kj::READY_NOW;
  }

  Load& load_;
  std::int64_t answered_ns_ = NowNs();
};

void Load::Connect(int count) {
  auto address =
      io_.provider->getNetwork().parseAddress(options_.address.c_str()).wait(io_.waitScope);
  for (int i = 0; i < count; ++i) {
    connections_.push_back(std::make_unique<Connection>(address->connect().wait(io_.waitScope)));
    connections_.back()->host.whenResolved().wait(io_.waitScope);
  }
}

void Load::Call(Host::Client& host) {
  const std::int64_t start = NowNs();
  auto request = host.echoRequest(capnp::MessageSize{32, 0});
  request.setPayload(ToData(message_));
  tasks_.add(request.send().then([this, &host, start](auto&& response) {
    if (response.getPayload() != ToData(message_)) Fail("not the response");
    measurement_.Count(NowNs() - start);
    Call(host);
  }));
}

void Load::MeasureUnary() {
  Connect(options_.connections);
  for (const auto& connection : connections_) {
    for (int i = 0; i < options_.outstanding; ++i) Call(connection->host);
  }
  Measure();
  measurement_.NoteLatencies();
  measurement_.NoteRate();
}

void Load::MeasureQuestions() {
  Connect(1);
  auto request = connections_[0]->host.askRequest();
  request.setAnswerer(kj::heap<PromptAnswerer>(*this));
  request.setOpen(static_cast<std::uint32_t>(options_.outstanding));
  Wait(request.send().ignoreResult());
  Measure();
  if (options_.outstanding == 1) measurement_.NoteLatencies();
  measurement_.NoteRate();
}

void Load::SubscribeOnEach(int streams) {
  for (const auto& connection : connections_) {
    for (int i = 0; i < streams; ++i) {
      auto request = connection->host.subscribeRequest();
      request.setSubscriber(kj::heap<CountingSubscriber>(*this));
      subscriptions_.push_back(request.send().wait(io_.waitScope).getSubscription());
    }
  }
}

bool Load::Publish(Host::Client& host) {
  events_ = 0;
  auto all_came = kj::newPromiseAndFulfiller<void>();
  all_came_ = kj::mv(all_came.fulfiller);
  auto request = host.publishRequest();
  request.setEvent(ToData(message_));
  const auto subscribers = request.send().wait(io_.waitScope).getSubscribers();
  Wait(kj::mv(all_came.promise));
  return subscribers == static_cast<std::uint32_t>(subscribers_);
}

void Load::MeasureFanOut() {
  subscribers_ = options_.connections * options_.streams;
  Connect(options_.connections);
  SubscribeOnEach(options_.streams);
  Connect(1);
  Host::Client& host = connections_.back()->host;
  Publish(host);
  measurement_.Begin();
  const std::int64_t end = NowNs() + static_cast<std::int64_t>(options_.seconds * 1e9);
  do {
    const std::int64_t start = NowNs();
    if (!Publish(host)) Fail("not all events");
    measurement_.Count(last_event_ns_ - start);
  } while (NowNs() < end);
  measurement_.End();
  measurement_.NoteLatencies();
  measurement_.CountMany(measurement_.count() * (subscribers_ - 1));
  measurement_.NoteRate();
}

void Load::OpenAndClose() {
  auto request = connections_[0]->host.subscribeRequest();
  request.setSubscriber(kj::heap<CountingSubscriber>(*this));
  // The subscription ends with the response.
  tasks_.add(request.send().then([this](auto&& /*response*/) {
    measurement_.Count();
    OpenAndClose();
  }));
}

void Load::MeasureOpenClose() {
  Connect(1);
  for (int i = 0; i < options_.outstanding; ++i) OpenAndClose();
  Measure();
  measurement_.NoteRate();
}

void Load::CallOnEach() {
  for (const auto& connection : connections_) {
    auto request = connection->host.echoRequest();
    request.setPayload(ToData(message_));
    Wait(request.send().ignoreResult());
  }
}

void Load::MeasureIdle() {
  constexpr int kFirst = 10;
  const bool of_connections = options_.streams == 0;
  Connect(of_connections ? kFirst : options_.connections);
  if (!of_connections) SubscribeOnEach(kFirst);
  CallOnEach();
  const std::int64_t before = ResidentBytes(options_.server);
  if (of_connections) {
    Connect(options_.connections);
  } else {
    SubscribeOnEach(options_.streams);
  }
  CallOnEach();
  const auto bytes = static_cast<double>(ResidentBytes(options_.server) - before);
  const int count = options_.connections * (of_connections ? 1 : options_.streams);
  measurement_.Note("bytes", bytes / count);
}

void Load::Run() {
  if (options_.mode == "unary") {
    MeasureUnary();
  } else if (options_.mode == "questions") {
    MeasureQuestions();
  } else if (options_.mode == "fan-out") {
    MeasureFanOut();
  } else if (options_.mode == "open-close") {
    MeasureOpenClose();
  } else if (options_.mode == "idle") {
    MeasureIdle();
  } else {
    Fail("no such mode: " + options_.mode);
  }
  measurement_.Print();
  std::fflush(stdout);
  // Calls are open everywhere: their orderly end is nobody's business here.
  std::_Exit(0);
}

// One call on a new connection. The loop is made once: it is the server's start that is measured.
void MeasureStartWithFirstCalls(const LoadOptions& options) {
  auto io = kj::setupAsyncIo();
  MeasureStart(options, [&io](int fd) {
    Connection connection(
        io.lowLevelProvider->wrapSocketFd(fd, kj::LowLevelAsyncIoProvider::TAKE_OWNERSHIP));
    auto request = connection.host.echoRequest();
    request.setPayload(ToData("first"));
    request.send().wait(io.waitScope);
  });
}

}  // namespace
}  // namespace varnic::bench

int main(int argc, char** argv) {
  const auto options = varnic::bench::ParseLoadOptions(argc, argv);
  const auto failure = kj::runCatchingExceptions([&] {
    if (options.mode == "start") {
      varnic::bench::MeasureStartWithFirstCalls(options);
    } else {
      varnic::bench::Load(options).Run();
    }
  });
  KJ_IF_MAYBE (exception, failure) {
    std::fprintf(stderr, "%s\n", exception->getDescription().cStr());
    return 1;
  }
}
