// Cap'n Proto RPC: one thread, one event loop, as its own examples serve.

#include <capnp/rpc-twoparty.h>
#include <kj/async-io.h>

#include <cstdio>
#include <set>
#include <string>

#include "bench/side_by_side/host.capnp.h"
#include "bench/side_by_side/scenario.h"

namespace varnic::bench {
namespace {

capnp::Data::Reader ToData(const std::string& bytes) {
  return {reinterpret_cast<const kj::byte*>(bytes.data()), bytes.size()};
}

class Subscribed;
using Subscribers = std::set<Subscribed*>;

class Subscribed final : public Subscription::Server {
 public:
  Subscribed(Subscribers& all, Subscriber::Client subscriber)
      : all_(all), subscriber_(kj::mv(subscriber)) {
    all_.insert(this);
  }
  ~Subscribed() { all_.erase(this); }
  KJ_DISALLOW_COPY(Subscribed);

  kj::Promise<void> Send(capnp::Data::Reader event) {
    auto request = subscriber_.onEventRequest(capnp::MessageSize{32, 0});
    request.setEvent(event);
    return request.send().ignoreResult();
  }

 private:
  Subscribers& all_;
  Subscriber::Client subscriber_;
};

class EchoHost final : public Host::Server, private kj::TaskSet::ErrorHandler {
 private:
  kj::Promise<void> echo(EchoContext context) override {
    const auto payload = context.getParams().getPayload();
    context.initResults(capnp::MessageSize{32, 0}).setPayload(payload);
    return kj::READY_NOW;
  }

  kj::Promise<void> subscribe(SubscribeContext context) override {
    context.getResults().setSubscription(
        kj::heap<Subscribed>(subscribers_, context.getParams().getSubscriber()));
    return kj::READY_NOW;
  }

  kj::Promise<void> publish(PublishContext context) override {
    const auto event = context.getParams().getEvent();
    for (Subscribed* subscriber : subscribers_) tasks_.add(subscriber->Send(event));
    context.getResults().setSubscribers(static_cast<std::uint32_t>(subscribers_.size()));
    return kj::READY_NOW;
  }

  kj::Promise<void> ask(AskContext context) override {
    const auto params = context.getParams();
    for (std::uint32_t i = 0; i < params.getOpen(); ++i) tasks_.add(Ask(params.getAnswerer()));
    return kj::READY_NOW;
  }

  kj::Promise<void> Ask(Answerer::Client answerer) {
    auto request = answerer.onQuestionRequest(capnp::MessageSize{32, 0});
    request.setQuestion(ToData(question_));
    return request.send().then([this, answerer = kj::mv(answerer)](auto&& /*answer*/) mutable {
      tasks_.add(Ask(kj::mv(answerer)));
    });
  }

  // Whoever was asked or told has gone.
  void taskFailed(kj::Exception&& /*exception*/) override {}

  const std::string question_ = std::string(kMessageBytes, 'q');
  Subscribers subscribers_;
  kj::TaskSet tasks_{*this};
};

void Serve(const std::string& address) {
  auto io = kj::setupAsyncIo();
  auto listener =
      io.provider->getNetwork().parseAddress(address.c_str()).wait(io.waitScope)->listen();
  capnp::TwoPartyServer server(kj::heap<EchoHost>());
  const bool is_file = address.rfind("unix:", 0) == 0;
  std::printf("%s\n", is_file ? address.c_str()
                              : ("127.0.0.1:" + std::to_string(listener->getPort())).c_str());
  std::fflush(stdout);
  server.listen(*listener).wait(io.waitScope);
}

}  // namespace
}  // namespace varnic::bench

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  const auto failure = kj::runCatchingExceptions([&] { varnic::bench::Serve(argv[1]); });
  KJ_IF_MAYBE (exception, failure) {
    std::fprintf(stderr, "%s\n", exception->getDescription().cStr());
    return 1;
  }
}
