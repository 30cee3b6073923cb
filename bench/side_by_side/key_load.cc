// What it costs the server of this framework when a client subscribes, unsubscribes and
// disconnects, while other streams hold other keys. Prints one line of JSON.

#include <sys/types.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "bench/side_by_side/grpc_connection.h"
#include "bench/side_by_side/grpc_messages.h"
#include "bench/side_by_side/load_options.h"
#include "bench/side_by_side/measurement.h"
#include "bench/side_by_side/scenario.h"

namespace varnic::bench {
namespace {

// As many as a stream may have by default.
constexpr int kKeysOfAStream = 256;
// That one connection subscribes and unsubscribes before it disconnects.
constexpr int kTurns = 5;

std::string KeyOf(const std::string& holder, int number) {
  return PaddedKey(holder + " " + std::to_string(number) + " ");
}

std::string Unsubscription(std::string_view key) {
  return Field(1, TextMessage(key)) + std::string{2 << 3, 2};
}

// One connection, and streams on it.
class Client : GrpcConnection::Visitor {
 public:
  explicit Client(const std::string& address) : connection_(address, *this) {}

  void OpenStreams(int count) {
    for (int i = 0; i < count; ++i) {
      streams_.push_back(&connection_.Start(Method::kWhenNetworkChanged, "", /*half_close=*/false));
    }
    connection_.Flush();
    // The server has opened them when it has answered a call behind them.
    Call(Method::kName, "opened");
  }

  void Send(int stream, const std::string& message) {
    connection_.Send(*streams_[static_cast<std::size_t>(stream)], Framed(message));
  }
  // All of what was sent is on its way before this returns, unless the server's windows are full.
  void Flush() { connection_.Flush(); }

  // The text of the answer, when it has come.
  std::string Call(Method method, const std::string& text) {
    answered_ = false;
    call_ = &connection_.Start(method, Framed(TextMessage(text)), /*half_close=*/true);
    connection_.Flush();
    connection_.ReadUntil(answered_);
    return answer_;
  }
  // The number of streams that hold `key`, each of which gets an event.
  std::string Publish(const std::string& key) { return Call(Method::kPath, key); }

 private:
  void OnMessage(GrpcConnection& /*connection*/, GrpcCall& call,
                 std::string_view message) override {
    if (&call == call_) answer_ = message.substr(2);
  }
  void OnEnd(GrpcConnection& /*connection*/, GrpcCall& call) override {
    if (&call != call_ || !call.ok) Fail("not what was expected: the end of a stream");
    answered_ = true;
  }

  std::vector<GrpcCall*> streams_;
  const GrpcCall* call_ = nullptr;
  bool answered_ = false;
  std::string answer_;
  GrpcConnection connection_;
};

// The server's CPU time for one kind of work.
class Cost {
 public:
  explicit Cost(pid_t server) : server_(server) {}

  template <class Work>
  void Measure(int operations, const Work& work) {
    const std::int64_t before = CpuNs(server_);
    work();
    spent_ns_ += CpuNs(server_) - before;
    operations_ += operations;
  }
  double each_us() const {
    return static_cast<double>(spent_ns_) / static_cast<double>(operations_) / 1e3;
  }

 private:
  pid_t server_;
  std::int64_t spent_ns_ = 0;
  std::int64_t operations_ = 0;
};

class Load {
 public:
  explicit Load(const LoadOptions& options)
      : options_(options),
        others_(options.address),
        call_(options.server),
        subscribe_(options.server),
        unsubscribe_(options.server),
        disconnect_(options.server) {}

  void Run() {
    HoldOtherKeys();
    Round();  // The first one warms up.
    call_ = subscribe_ = unsubscribe_ = disconnect_ = Cost(options_.server);
    const std::int64_t end = NowNs() + static_cast<std::int64_t>(options_.seconds * 1e9);
    do {
      Round();
    } while (NowNs() < end);
    Print();
  }

 private:
  void HoldOtherKeys() {
    const int streams = (options_.keys + kKeysOfAStream - 1) / kKeysOfAStream;
    others_.OpenStreams(streams);
    for (int i = 0; i < options_.keys; ++i) {
      others_.Send(i / kKeysOfAStream, Subscription(KeyOf("other", i)));
    }
    others_.Flush();
    // What a stream sends arrives in order: its last key says that it has all.
    for (int i = 0; i < streams; ++i) {
      const int last = std::min(options_.keys, (i + 1) * kKeysOfAStream) - 1;
      while (others_.Publish(KeyOf("other", last)) != "1") continue;
    }
  }

  // One connection comes, subscribes each of its streams to a key of its own, and goes.
  void Round() {
    auto client = std::make_unique<Client>(options_.address);
    client->OpenStreams(options_.streams);
    for (int turn = 0; turn < kTurns; ++turn) {
      call_.Measure(1, [&] { client->Call(Method::kName, "done"); });
      subscribe_.Measure(options_.streams, [&] { SendOnEach(*client, Subscription); });
      if (turn == 0) Expect(client->Publish(LastKey()) == "1", "a subscription");
      unsubscribe_.Measure(options_.streams, [&] { SendOnEach(*client, Unsubscription); });
      if (turn == 0) Expect(client->Publish(LastKey()) == "0", "no subscription");
    }
    SendOnEach(*client, Subscription);
    Expect(client->Publish(LastKey()) == "1", "a subscription");
    disconnect_.Measure(options_.streams, [&] {
      client.reset();
      while (others_.Publish(LastKey()) != "0") continue;
    });
  }

  // The call behind the messages is answered when the server is done with them.
  template <class Message>
  void SendOnEach(Client& client, const Message& message) {
    for (int i = 0; i < options_.streams; ++i) client.Send(i, message(KeyOf("own", i)));
    client.Flush();
    client.Call(Method::kName, "done");
  }

  std::string LastKey() const { return KeyOf("own", options_.streams - 1); }

  static void Expect(bool is_so, const char* what) {
    if (!is_so) Fail(std::string("not what was expected: ") + what);
  }

  void Print() {
    // The call that ends a batch is not its work.
    const double call_us = call_.each_us() / options_.streams;
    Measurement measurement(options_.server);
    measurement.Note("subscribe_us", subscribe_.each_us() - call_us);
    measurement.Note("unsubscribe_us", unsubscribe_.each_us() - call_us);
    measurement.Note("disconnect_us", disconnect_.each_us() - call_us);
    measurement.Print();
  }

  const LoadOptions options_;
  Client others_;
  Cost call_;
  Cost subscribe_;
  Cost unsubscribe_;
  Cost disconnect_;
};

}  // namespace
}  // namespace varnic::bench

int main(int argc, char** argv) {
  varnic::bench::Load(varnic::bench::ParseLoadOptions(argc, argv)).Run();
}
