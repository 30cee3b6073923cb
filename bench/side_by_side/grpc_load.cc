// The load generator for every server that speaks gRPC. Prints one line of JSON.

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "bench/side_by_side/grpc_connection.h"
#include "bench/side_by_side/grpc_messages.h"
#include "bench/side_by_side/load_options.h"
#include "bench/side_by_side/load_socket.h"
#include "bench/side_by_side/measurement.h"
#include "bench/side_by_side/scenario.h"

namespace varnic::bench {
namespace {

std::int64_t ToNs(double seconds) {
  return static_cast<std::int64_t>(seconds * 1e9);
}

// Connections to one server, watched together, and what all kinds of load have in common.
class Load : protected GrpcConnection::Visitor {
 protected:
  explicit Load(const LoadOptions& options) : options_(options), measurement_(options.server) {}

  void Connect(int connections) {
    GrpcConnection::Visitor& visitor = *this;
    for (int i = 0; i < connections; ++i) {
      connections_.push_back(std::make_unique<GrpcConnection>(options_.address, visitor));
      GrpcConnection& connection = *connections_.back();
      watch_.Add(connection.socket(), [&connection] { connection.Read(); });
    }
  }

  void FlushAll() {
    for (const auto& connection : connections_) connection->Flush();
  }

  void RunFor(double seconds) {
    const std::int64_t end = NowNs() + ToNs(seconds);
    watch_.RunUntil([end] { return NowNs() >= end; });
  }

  // What goes on by itself is measured after a while.
  void Measure() {
    RunFor(options_.warm_up);
    measurement_.Begin();
    const std::int64_t end = NowNs() + ToNs(options_.seconds);
    watch_.RunUntil([this, end] { return measurement_.MayEnd(end); });
    measurement_.End();
  }

  // The server's memory after a warm-up, and after each tenth of `options.count`. `run_until` is
  // called with a number, and returns when that much has been counted.
  template <class RunUntil>
  void MeasureMemory(const RunUntil& run_until) {
    constexpr int kParts = 10;
    const std::int64_t part = options_.count / kParts;
    run_until(part);
    measurement_.Begin();
    NoteMemory(0);
    for (int i = 1; i <= kParts; ++i) {
      run_until(part * i);
      NoteMemory(i);
    }
    measurement_.End();
  }

  static void Check(bool is_as_expected, const char* what) {
    if (!is_as_expected) Fail(std::string("not what was expected: ") + what);
  }

  void NoteMemory(int part) {
    const auto bytes = static_cast<double>(ResidentBytes(options_.server));
    measurement_.Note("kib_" + std::to_string(part), bytes / 1024);
  }

  const LoadOptions options_;
  Measurement measurement_;
  std::vector<std::unique_ptr<GrpcConnection>> connections_;
  SocketWatch watch_;  // Last: knows the connections.
};

// Keeps unary calls open on each connection.
class UnaryLoad : Load {
 public:
  explicit UnaryLoad(const LoadOptions& options) : Load(options) {
    Connect(options.connections);
    for (const auto& connection : connections_) {
      for (int i = 0; i < options.outstanding; ++i) Call(*connection);
    }
    FlushAll();
    if (options.count > 0) {
      MeasureMemory([this](std::int64_t count) {
        watch_.RunUntil([this, count] { return measurement_.count() >= count; });
      });
    } else {
      Measure();
      measurement_.NoteLatencies();
    }
    measurement_.NoteRate();
    measurement_.Print();
  }

 private:
  void Call(GrpcConnection& connection) {
    connection.Start(Method::kName, framed_, /*half_close=*/true).started_ns = NowNs();
  }
  void OnMessage(GrpcConnection& /*connection*/, GrpcCall& /*call*/,
                 std::string_view message) override {
    Check(message == message_, "the response");
  }
  void OnEnd(GrpcConnection& connection, GrpcCall& call) override {
    Check(call.ok && call.answered, "the end of a call");
    measurement_.Count(NowNs() - call.started_ns);
    Call(connection);
  }

  const std::string message_ = TextMessage(std::string(kTextBytes, 'x'));
  const std::string framed_ = Framed(message_);
};

// Answers questions, of which the server keeps so many open. The latency is that of the server's
// next question behind an answer, so it means something with one open question only.
class QuestionLoad : Load {
 public:
  explicit QuestionLoad(const LoadOptions& options)
      : Load(options), key_(QuestionKey(options.outstanding)) {
    Connect(1);
    connections_[0]->Start(Method::kOnCanAccessFile, Framed(Subscription(key_)),
                           /*half_close=*/false);
    AskForQuestions();
    FlushAll();
    Measure();
    if (options.outstanding == 1) measurement_.NoteLatencies();
    measurement_.NoteRate();
    measurement_.Print();
  }

 private:
  void AskForQuestions() {
    trigger_ =
        &connections_[0]->Start(Method::kIsDefault, Framed(TextMessage(key_)), /*half_close=*/true);
  }
  void OnMessage(GrpcConnection& connection, GrpcCall& call, std::string_view message) override {
    if (&call == trigger_) return;
    const std::int64_t now = NowNs();
    measurement_.Count(now - answered_ns_);
    connection.Send(call, Framed(Answer(key_, CallIdOf(message))));
    answered_ns_ = now;
  }
  // Until the server knows of the subscription.
  void OnEnd(GrpcConnection& /*connection*/, GrpcCall& call) override {
    Check(&call == trigger_, "the end of a stream");
    trigger_ = nullptr;
    if (!call.ok) AskForQuestions();
  }

  const std::string key_;
  const GrpcCall* trigger_ = nullptr;
  std::int64_t answered_ns_ = NowNs();
};

// Makes the server publish an event to all streams, and again when the last one has it.
class FanOutLoad : Load {
 public:
  explicit FanOutLoad(const LoadOptions& options)
      : Load(options), subscribers_(options.connections * options.streams) {
    Connect(1);  // Says when to publish.
    trigger_connection_ = connections_[0].get();
    Connect(options.connections);
    for (std::size_t i = 1; i < connections_.size(); ++i) Subscribe(*connections_[i]);
    FlushAll();
    while (!Publish()) continue;
    Publish();
    if (options.count > 0) {
      MeasureMemory([this](std::int64_t count) {
        while (measurement_.count() < count) PublishAndCount();
      });
    } else {
      MeasureTimeToLast();
    }
    measurement_.NoteRate();
    measurement_.Print();
  }

 private:
  void MeasureTimeToLast() {
    measurement_.Begin();
    const std::int64_t end = NowNs() + ToNs(options_.seconds);
    do {
      PublishAndCount();
    } while (NowNs() < end);
    measurement_.End();
    measurement_.NoteLatencies();
  }

  // One latency for each publication, and one count for each event.
  void PublishAndCount() {
    const std::int64_t start = NowNs();
    Check(Publish(), "the number of events");
    measurement_.Count(last_event_ns_ - start);
    measurement_.CountMany(subscribers_ - 1);
  }

  void Subscribe(GrpcConnection& connection) {
    for (int i = 0; i < options_.streams; ++i) {
      connection.Start(Method::kWhenNetworkChanged, subscription_, /*half_close=*/false);
    }
  }

  // False if not every stream is known to the server.
  bool Publish() {
    events_ = 0;
    taken_ = -1;
    trigger_ = &trigger_connection_->Start(Method::kPath, Framed(TextMessage(EventKey())),
                                           /*half_close=*/true);
    trigger_connection_->Flush();
    watch_.RunUntil([this] { return trigger_ == nullptr && events_ == taken_; });
    return taken_ == subscribers_;
  }

  void OnMessage(GrpcConnection& /*connection*/, GrpcCall& call,
                 std::string_view message) override {
    if (&call == trigger_) {
      taken_ = std::atoi(std::string(message.substr(2)).c_str());
      return;
    }
    Check(message.size() == kMessageBytes, "the size of an event");
    if (++events_ == subscribers_) last_event_ns_ = NowNs();
  }
  void OnEnd(GrpcConnection& /*connection*/, GrpcCall& call) override {
    Check(call.ok && &call == trigger_, "the end of a stream");
    trigger_ = nullptr;
  }

  const int subscribers_;
  const std::string subscription_ = Framed(Subscription(EventKey()));
  GrpcConnection* trigger_connection_ = nullptr;
  const GrpcCall* trigger_ = nullptr;
  int events_ = 0;
  int taken_ = -1;
  std::int64_t last_event_ns_ = 0;
};

// Opens streams, and closes each when the server has answered.
class OpenCloseLoad : Load {
 public:
  explicit OpenCloseLoad(const LoadOptions& options) : Load(options) {
    Connect(1);
    for (int i = 0; i < options.outstanding; ++i) Open();
    FlushAll();
    Measure();
    measurement_.NoteRate();
    measurement_.Print();
  }

 private:
  void Open() {
    connections_[0]->Start(Method::kWhenNetworkChanged, subscription_, /*half_close=*/false);
  }
  void OnHeaders(GrpcConnection& connection, GrpcCall& call) override {
    if (!call.half_close) connection.Send(call, "", /*half_close=*/true);
  }
  void OnMessage(GrpcConnection& /*connection*/, GrpcCall& /*call*/,
                 std::string_view /*message*/) override {}
  void OnEnd(GrpcConnection& /*connection*/, GrpcCall& call) override {
    Check(call.ok, "the end of a stream");
    measurement_.Count();
    Open();
  }

  const std::string subscription_ = Framed(Subscription(EventKey()));
};

// What the server keeps for connections and streams on which nothing goes on.
class IdleLoad : Load {
 public:
  explicit IdleLoad(const LoadOptions& options) : Load(options) {
    if (options.streams == 0) {
      MeasureConnections();
    } else {
      MeasureStreams();
    }
    measurement_.Print();
  }

 private:
  // The first ones may make the server take memory that it keeps for all.
  static constexpr int kFirst = 10;

  void MeasureConnections() {
    Connect(kFirst);
    CallOnEach();
    const std::int64_t before = ResidentBytes(options_.server);
    Connect(options_.connections);
    CallOnEach();
    NoteBytes(before, options_.connections);
  }

  void MeasureStreams() {
    Connect(options_.connections);
    for (int i = 0; i < kFirst; ++i) OpenOnEach(1);
    CallOnEach();
    const std::int64_t before = ResidentBytes(options_.server);
    OpenOnEach(options_.streams);
    CallOnEach();
    NoteBytes(before, options_.connections * options_.streams);
  }

  void NoteBytes(std::int64_t before, int count) {
    const auto bytes = static_cast<double>(ResidentBytes(options_.server) - before);
    measurement_.Note("bytes", bytes / count);
  }

  void OpenOnEach(int streams) {
    opened_ = 0;
    for (const auto& connection : connections_) {
      for (int i = 0; i < streams; ++i) {
        connection->Start(Method::kWhenNetworkChanged, subscription_, /*half_close=*/false);
      }
    }
    FlushAll();
    const int expected = static_cast<int>(connections_.size()) * streams;
    watch_.RunUntil([this, expected] { return opened_ == expected; });
  }
  void CallOnEach() {
    answered_ = 0;
    for (const auto& connection : connections_) {
      connection->Start(Method::kName, framed_, /*half_close=*/true);
    }
    FlushAll();
    watch_.RunUntil([this] { return answered_ == connections_.size(); });
  }

  void OnHeaders(GrpcConnection& /*connection*/, GrpcCall& /*call*/) override { ++opened_; }
  void OnMessage(GrpcConnection& /*connection*/, GrpcCall& /*call*/,
                 std::string_view /*message*/) override {}
  void OnEnd(GrpcConnection& /*connection*/, GrpcCall& call) override {
    Check(call.ok, "the end of a call");
    ++answered_;
  }

  const std::string subscription_ = Framed(Subscription(EventKey()));
  const std::string framed_ = Framed(TextMessage(std::string(kTextBytes, 'x')));
  int opened_ = 0;
  std::size_t answered_ = 0;
};

// One call on a new connection.
class FirstCall : GrpcConnection::Visitor {
 public:
  explicit FirstCall(int fd) : connection_(fd, *this) {
    connection_.Start(Method::kName, Framed(TextMessage("first")), /*half_close=*/true);
    connection_.Flush();
    connection_.ReadUntil(ended_);
  }

 private:
  void OnMessage(GrpcConnection& /*connection*/, GrpcCall& /*call*/,
                 std::string_view /*message*/) override {}
  void OnEnd(GrpcConnection& /*connection*/, GrpcCall& call) override {
    if (!call.ok) Fail("the first call has failed");
    ended_ = true;
  }

  bool ended_ = false;
  GrpcConnection connection_;
};

void Run(const LoadOptions& options) {
  if (options.mode == "unary") {
    const UnaryLoad load(options);
  } else if (options.mode == "questions") {
    const QuestionLoad load(options);
  } else if (options.mode == "fan-out") {
    const FanOutLoad load(options);
  } else if (options.mode == "open-close") {
    const OpenCloseLoad load(options);
  } else if (options.mode == "idle") {
    const IdleLoad load(options);
  } else if (options.mode == "start") {
    MeasureStart(options, [](int fd) { const FirstCall call(fd); });
  } else {
    Fail("no such mode: " + options.mode);
  }
}

}  // namespace
}  // namespace varnic::bench

int main(int argc, char** argv) {
  varnic::bench::Run(varnic::bench::ParseLoadOptions(argc, argv));
}
