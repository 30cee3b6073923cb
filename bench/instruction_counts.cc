// Fixed work for callgrind, which counts instructions and system calls of the server: server and
// client are in one thread, and counting is on while the server runs. Each kind of work leaves a
// dump whose name says how many of it were done. See instruction_counts.py.

#include <poll.h>
#include <valgrind/callgrind.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "bench/side_by_side/grpc_connection.h"
#include "bench/side_by_side/grpc_messages.h"
#include "bench/side_by_side/measurement.h"
#include "bench/side_by_side/scenario.h"
#include "bench/side_by_side/scenario_host.h"
#include "core/server/rpc_server.h"

namespace varnic::bench {
namespace {

constexpr int kWarmUp = 100;
constexpr int kTimes = 500;
constexpr int kSubscribers = 100;
constexpr int kQuestions = 100;

// Not counted, inside of what is.
bool IsReadable(const LoadSocket& socket) {
  CALLGRIND_TOGGLE_COLLECT;
  pollfd readable{socket.fd(), POLLIN, 0};
  const bool is_readable = poll(&readable, 1, 0) == 1;
  CALLGRIND_TOGGLE_COLLECT;
  return is_readable;
}

class Work : GrpcConnection::Visitor {
 public:
  explicit Work(const std::string& address) {
    server_.AddService(host_);
    if (!server_.Listen(address).ok()) Fail("cannot listen on " + address);
    connection_ = std::make_unique<GrpcConnection>(address, visitor());
    key_.set_value(EventKey());
  }

  void CountAll() {
    Count("unary_call", 1, [this] { CallOnce(); });
    Count("stream_opened_and_closed", 1, [this] { OpenAndClose(); });
    StartQuestions(1);
    Count("question_and_answer", 1, [this] { Answer(); });
    StartQuestions(kQuestions);
    Count("question_of_a_hundred", kQuestions, [this] { Answer(); });
    Subscribe();
    Count("delivered_event", kSubscribers, [this] { PublishOnce(); });
  }

 private:
  GrpcConnection::Visitor& visitor() { return *this; }

  template <class Do>
  static void Count(const std::string& name, int of_each, const Do& once) {
    for (int i = 0; i < kWarmUp; ++i) once();
    CALLGRIND_ZERO_STATS;
    for (int i = 0; i < kTimes; ++i) once();
    const std::string label = name + " " + std::to_string(kTimes * of_each);
    CALLGRIND_DUMP_STATS_AT(label.c_str());
    std::printf("%s\n", label.c_str());
  }

  void OnWait(const LoadSocket& socket) override {
    CALLGRIND_TOGGLE_COLLECT;
    server_.loop().RunUntil([&socket] { return IsReadable(socket); });
    CALLGRIND_TOGGLE_COLLECT;
  }

  void Finish(const bool& done) {
    connection_->Flush();
    connection_->ReadUntil(done);
  }

  void CallOnce() {
    ended_ = false;
    connection_->Start(Method::kName, framed_, /*half_close=*/true);
    Finish(ended_);
  }

  void OpenAndClose() {
    ended_ = false;
    headers_ = false;
    GrpcCall& stream =
        connection_->Start(Method::kWhenNetworkChanged, subscription_, /*half_close=*/false);
    Finish(headers_);
    connection_->Send(stream, "", /*half_close=*/true);
    Finish(ended_);
  }

  // On a stream of its own, on which so many are open from now on.
  void StartQuestions(int open) {
    open_questions_ = open;
    call_ids_.clear();
    questions_came_ = false;
    question_key_ = QuestionKey(open);
    questions_ = &connection_->Start(Method::kOnCanAccessFile, Framed(Subscription(question_key_)),
                                     /*half_close=*/false);
    connection_->Start(Method::kIsDefault, Framed(TextMessage(question_key_)),
                       /*half_close=*/true);
    Finish(questions_came_);
  }

  // Answers what is open, and waits for as many new questions.
  void Answer() {
    questions_came_ = false;
    for (const std::uint64_t call_id : std::exchange(call_ids_, {})) {
      connection_->Send(*questions_, Framed(bench::Answer(question_key_, call_id)));
    }
    Finish(questions_came_);
  }

  // The call behind the subscriptions is answered when the server knows all of them.
  void Subscribe() {
    for (int i = 0; i < kSubscribers; ++i) {
      connection_->Start(Method::kWhenNetworkChanged, subscription_, /*half_close=*/false);
    }
    CallOnce();
  }

  void PublishOnce() {
    events_ = 0;
    all_came_ = false;
    CALLGRIND_TOGGLE_COLLECT;
    const std::size_t taken = host_.Publish(key_);
    CALLGRIND_TOGGLE_COLLECT;
    if (taken != kSubscribers) Fail("an event was not taken");
    Finish(all_came_);
  }

  void OnHeaders(GrpcConnection& /*connection*/, GrpcCall& /*call*/) override { headers_ = true; }
  void OnMessage(GrpcConnection& /*connection*/, GrpcCall& call,
                 std::string_view message) override {
    if (&call == questions_) {
      call_ids_.push_back(CallIdOf(message));
      questions_came_ = call_ids_.size() == static_cast<std::size_t>(open_questions_);
    } else if (++events_ == kSubscribers) {
      all_came_ = true;
    }
  }
  void OnEnd(GrpcConnection& /*connection*/, GrpcCall& call) override {
    if (!call.ok) Fail("a call has failed");
    ended_ = true;
  }

  const std::string framed_ = Framed(TextMessage(std::string(kTextBytes, 'x')));
  const std::string subscription_ = Framed(Subscription(EventKey()));
  std::string question_key_;
  ProfileId key_;
  bool headers_ = false;
  bool ended_ = false;
  bool questions_came_ = false;
  bool all_came_ = false;
  int events_ = 0;
  int open_questions_ = 0;
  std::vector<std::uint64_t> call_ids_;
  GrpcCall* questions_ = nullptr;
  RpcServer server_;
  ScenarioHost host_{server_.scheduler()};
  std::unique_ptr<GrpcConnection> connection_;
};

}  // namespace
}  // namespace varnic::bench

// The one argument is the address.
int main(int argc, char** argv) {
  if (argc != 2) return 2;
  varnic::bench::Work(argv[1]).CountAll();
  std::fflush(stdout);
  std::_Exit(0);  // Streams are open: their end is not what is counted.
}
