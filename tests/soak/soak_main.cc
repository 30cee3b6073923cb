// Does one thing to a host very often, or very much of it at a time, and prints what the host then
// holds. Ends with 1 if that is more than it may be. `--help` lists what there is.

#include <malloc.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "absl/status/status.h"
#include "absl/strings/numbers.h"
#include "absl/time/clock.h"
#include "absl/time/time.h"
#include "core/common/rpc/fatal.h"
#include "rpc/event_subscription.pb.h"
#include "rpc/profile/profile.pb.h"
#include "tests/soak/soaked_host.h"
#include "tests/stream_peer.h"

namespace varnic {
namespace {

using Stream = std::unique_ptr<StreamPeer::Stream>;

constexpr char kKey[] = "shared";

double PerUnit(std::int64_t amount, std::int64_t units) {
  return static_cast<double>(amount) / static_cast<double>(units);
}

Stream SubscribeToEvents(StreamPeer& peer, const std::string& key = kKey) {
  Stream stream = peer.Open("WhenNetworkChanged");
  stream->Send(Subscription(key));
  peer.Pump();
  return stream;
}

Stream AnswerFor(StreamPeer& peer, const std::string& key) {
  Stream stream = peer.Open("OnCanAccessFile");
  stream->Send(FileAnswerer(key));
  peer.Pump();
  return stream;
}

// Prints "ok" or "TOO MUCH" behind what was found, and keeps it as the program's result.
class Verdict {
 public:
  void AtMost(const char* what, double found, double most, const char* unit) {
    const bool fine = found <= most;
    std::printf("%-48s %14.1f %-12s at most %.1f: %s\n", what, found, unit, most,
                fine ? "ok" : "TOO MUCH");
    fine_ = fine_ && fine;
  }
  void Exactly(const char* what, std::int64_t found, std::int64_t wanted) {
    std::printf("%-48s %14lld %-12s must be %lld: %s\n", what, static_cast<long long>(found), "",
                static_cast<long long>(wanted), found == wanted ? "ok" : "WRONG");
    fine_ = fine_ && found == wanted;
  }
  static void Note(const char* what, double found, const char* unit) {
    std::printf("%-48s %14.1f %s\n", what, found, unit);
  }
  int ExitStatus() const { return fine_ ? 0 : 1; }

 private:
  bool fine_ = true;
};

// What one subscription message of an event stream costs, which the stream keeps for good.
double KeptPerSubscription() {
  constexpr int kMessages = 1000;
  const std::string bytes = Subscription(kKey);
  std::vector<std::unique_ptr<::rpc::EventSubscription>> kept(kMessages);
  const std::size_t before = mallinfo2().uordblks;
  for (auto& message : kept) {
    message = std::make_unique<::rpc::EventSubscription>();
    VARNIC_CHECK(message->ParseFromString(bytes));
  }
  return static_cast<double>(mallinfo2().uordblks - before) / kMessages;
}

// Connects, subscribes and goes, so many times, and shows what the host holds beyond `kept` bytes
// for each time. One stream stays open throughout. `subscribe` gets the round's number.
Verdict GoRound(SoakedHost& host, std::int64_t rounds, double kept, double slack_bytes,
                const std::function<Stream(StreamPeer&, std::int64_t)>& subscribe) {
  const auto round = [&](std::int64_t number) {
    StreamPeer peer(host.address());
    const Stream stream = subscribe(peer, number);
    peer.Disconnect();
  };
  const HostFigures first = host.WaitUntil([](const HostFigures& now) { return now.streams == 1; });
  const auto alone = [&first](const HostFigures& now) {
    return now.streams == 1 && now.descriptors == first.descriptors;
  };
  // The first thousand fill the allocator's own stores.
  constexpr std::int64_t kFirst = 1000;
  for (std::int64_t i = 0; i < kFirst; ++i) round(i);
  const HostFigures before = host.WaitUntil(alone);
  for (std::int64_t i = 0; i < rounds; ++i) {
    round(kFirst + i);
    // Nobody is far ahead of the host: a backlog is no leak.
    if (i % 100 == 0) host.Figures();
  }
  const HostFigures after = host.WaitUntil(alone);

  Verdict verdict;
  const double all_kept = kept * static_cast<double>(rounds);
  Verdict::Note("rounds of connect, subscribe, disconnect", static_cast<double>(rounds), "");
  Verdict::Note("kept on purpose", all_kept, "bytes");
  // Allocators give a little more than they are asked for.
  verdict.AtMost("heap beyond that",
                 static_cast<double>(after.heap_bytes - before.heap_bytes) - all_kept,
                 slack_bytes + 0.02 * all_kept, "bytes");
  Verdict::Note("resident before", static_cast<double>(before.rss_bytes), "bytes");
  Verdict::Note("resident after", static_cast<double>(after.rss_bytes), "bytes");
  return verdict;
}

// A stream stays subscribed to one key, which every second round shares: each leaves its pointer
// behind in a set that lives on, unless somebody takes it out. The other rounds have keys of their
// own, whose sets and keys are to go with them.
int SubscribeRounds(std::int64_t rounds) {
  SoakedHost host;
  StreamPeer staying(host.address());
  const Stream subscriber = SubscribeToEvents(staying);
  const auto subscribe = [](StreamPeer& peer, std::int64_t round) {
    return SubscribeToEvents(peer, round % 2 == 0 ? kKey : std::to_string(round));
  };
  // What is kept may get a freed chunk that is 16 bytes larger than needed, in every second round.
  // A leak in those rounds would take 32 bytes more at least: the allocator has no smaller chunk.
  const double slack = (64 << 10) + 10.0 * static_cast<double>(rounds);
  Verdict verdict = GoRound(host, rounds, KeptPerSubscription(), slack, subscribe);
  verdict.Exactly("keys", host.Figures().subscribed_keys, 1);
  verdict.Exactly("streams that an event reaches", static_cast<std::int64_t>(host.Publish(kKey)),
                  1);
  return verdict.ExitStatus();
}

// The same with streams that keep nothing.
int AnswerRounds(std::int64_t rounds) {
  SoakedHost host;
  StreamPeer staying(host.address());
  const Stream answerer = AnswerFor(staying, "another");
  const auto answer = [](StreamPeer& peer, std::int64_t /*round*/) {
    return AnswerFor(peer, kKey);
  };
  Verdict verdict = GoRound(host, rounds, /*kept=*/0, 16 << 10, answer);
  verdict.Exactly("keys", host.Figures().callback_keys, 1);
  return verdict.ExitStatus();
}

// Each stream is sent something that its stream object would die of.
int BadMessages(std::int64_t streams) {
  SoakedHost host;
  const std::string bad[] = {"\xff\xff", ::rpc::CanAccessFile().SerializeAsString()};
  auto peer = std::make_unique<StreamPeer>(host.address());
  const auto one = [&](std::int64_t i) {
    const Stream stream = peer->Open("OnCanAccessFile");
    stream->Send(bad[i % 2]);
    return stream->Finish().code() == absl::StatusCode::kInvalidArgument;
  };
  for (int i = 0; i < 1000; ++i) VARNIC_CHECK(one(i));
  const HostFigures before = host.Figures();
  std::int64_t refused = 0;
  for (std::int64_t i = 0; i < streams; ++i) refused += one(i) ? 1 : 0;
  const HostFigures after = host.Figures();

  Verdict verdict;
  verdict.Exactly("streams that ended with INVALID_ARGUMENT", refused, streams);
  verdict.AtMost("heap", static_cast<double>(after.heap_bytes - before.heap_bytes), 64 << 10,
                 "bytes more");
  verdict.Exactly("streams left", after.streams, 0);
  return verdict.ExitStatus();
}

using Peers = std::vector<std::unique_ptr<StreamPeer>>;

// Connections on which a stream was open before, so that what a connection costs by itself is
// spent.
Peers Connect(const SoakedHost& host, std::size_t count) {
  Peers peers(count);
  for (auto& peer : peers) {
    peer = std::make_unique<StreamPeer>(host.address());
    const Stream stream = SubscribeToEvents(*peer);
    stream->HalfClose();
    VARNIC_CHECK(stream->Finish().ok());
  }
  return peers;
}

// Half of them are event streams that share a key, half callback streams with a key of their own.
int IdleStreams(std::int64_t count) {
  SoakedHost host;
  const Peers peers = Connect(host, 10);
  const HostFigures before = host.Figures();
  std::vector<Stream> subscribers;
  std::vector<Stream> answerers;
  for (std::int64_t i = 0; i < count / 2; ++i) {
    StreamPeer& peer = *peers[static_cast<std::size_t>(i) % peers.size()];
    subscribers.push_back(SubscribeToEvents(peer));
    answerers.push_back(AnswerFor(peer, std::to_string(i)));
  }
  const auto streams = static_cast<std::int64_t>(subscribers.size() + answerers.size());
  const HostFigures idle =
      host.WaitUntil([streams](const HostFigures& now) { return now.streams == streams; });
  const auto published = static_cast<std::int64_t>(host.Publish(kKey));
  std::int64_t received = 0;
  for (const Stream& subscriber : subscribers) received += subscriber->Receive().empty() ? 0 : 1;

  Verdict verdict;
  Verdict::Note("streams on 10 connections", static_cast<double>(streams), "");
  verdict.AtMost("heap of an idle stream", PerUnit(idle.heap_bytes - before.heap_bytes, streams),
                 4096, "bytes");
  Verdict::Note("resident for an idle stream", PerUnit(idle.rss_bytes - before.rss_bytes, streams),
                "bytes");
  verdict.Exactly("subscribers that one event went to", published, streams / 2);
  verdict.Exactly("subscribers that it reached", received, streams / 2);
  return verdict.ExitStatus();
}

int IdleConnections(std::int64_t count) {
  SoakedHost host;
  Connect(host, 10).clear();
  const HostFigures before =
      host.WaitUntil([](const HostFigures& now) { return now.streams == 0; });
  const Peers peers = Connect(host, static_cast<std::size_t>(count));
  const HostFigures idle = host.Figures();

  Verdict verdict;
  verdict.Exactly("connections", idle.descriptors - before.descriptors, count);
  verdict.AtMost("heap of an idle connection", PerUnit(idle.heap_bytes - before.heap_bytes, count),
                 32 << 10, "bytes");
  Verdict::Note("resident for an idle connection",
                PerUnit(idle.rss_bytes - before.rss_bytes, count), "bytes");
  return verdict.ExitStatus();
}

constexpr std::size_t kEventBytes = 4 << 10;

// Microseconds until `readers` have got each of `count` events; the median and the worst.
struct Delivery {
  double median = 0;
  double worst = 0;
};
Delivery Deliver(SoakedHost& host, const std::vector<Stream>& readers, int count) {
  std::vector<double> times;
  for (int i = 0; i < count; ++i) {
    const absl::Time start = absl::Now();
    host.Publish(kKey, kEventBytes);
    for (const Stream& reader : readers) VARNIC_CHECK(!reader->Receive().empty());
    times.push_back(absl::ToDoubleMicroseconds(absl::Now() - start));
  }
  std::sort(times.begin(), times.end());
  return {times[times.size() / 2], times.back()};
}

// One subscriber reads nothing; the others read every event.
int StalledReader(std::int64_t subscribers) {
  SoakedHost host;
  const Peers peers = Connect(host, 10);
  StreamPeer stalled_peer(host.address());
  std::vector<Stream> readers;
  while (static_cast<std::int64_t>(readers.size()) < subscribers - 1) {
    readers.push_back(SubscribeToEvents(*peers[readers.size() % peers.size()]));
  }
  const auto all_open = [subscribers](const HostFigures& now) {
    return now.streams == subscribers;
  };
  constexpr int kEvents = 100;
  (void)Deliver(host, readers, kEvents);
  const Delivery alone = Deliver(host, readers, kEvents);
  const Stream stalled = SubscribeToEvents(stalled_peer);
  const HostFigures before = host.WaitUntil(all_open);
  // Until its window, its socket and its queue are full.
  while (host.Figures().conflated_events == 0) (void)Deliver(host, readers, 10);
  const Delivery beside = Deliver(host, readers, kEvents);
  const HostFigures after = host.Figures();

  Verdict verdict;
  Verdict::Note("median until all others have an event", alone.median, "us");
  // Whoever waits for the one that reads nothing waits for ever; a busy machine adds much less.
  constexpr double kSecond = 1e6;
  verdict.AtMost("the same with one that reads nothing", beside.median, alone.median + kSecond,
                 "us");
  Verdict::Note("worst", alone.worst, "us");
  Verdict::Note("the same with one that reads nothing", beside.worst, "us");
  Verdict::Note("events that a newer one has replaced", static_cast<double>(after.conflated_events),
                "");
  verdict.AtMost("heap for the one that reads nothing",
                 static_cast<double>(after.heap_bytes - before.heap_bytes), 1 << 20, "bytes");
  verdict.Exactly("streams", after.streams, subscribers);
  return verdict.ExitStatus();
}

struct Soak {
  const char* name;
  const char* what;
  std::int64_t count;
  int (*run)(std::int64_t count);
};

constexpr Soak kSoaks[] = {
    {"subscribe-rounds", "connections that subscribe to one key and go", 1'000'000,
     SubscribeRounds},
    {"answer-rounds", "connections that answer for one key and go", 1'000'000, AnswerRounds},
    {"bad-messages", "streams that are sent what they would die of", 1'000'000, BadMessages},
    {"idle-streams", "streams that are open and idle", 2000, IdleStreams},
    {"idle-connections", "connections that are open and idle", 3000, IdleConnections},
    {"stalled-reader", "subscribers of which one reads nothing", 1000, StalledReader},
};

int Usage() {
  std::fprintf(stderr, "Usage: varnic_soak NAME [COUNT]\n");
  for (const Soak& soak : kSoaks) {
    std::fprintf(stderr, "  %-18s %s (%lld)\n", soak.name, soak.what,
                 static_cast<long long>(soak.count));
  }
  return 2;
}

// Thousands of connections need more descriptors than a shell gives at first.
void RaiseDescriptorLimit() {
  rlimit limit;
  VARNIC_CHECK(getrlimit(RLIMIT_NOFILE, &limit) == 0);
  limit.rlim_cur = limit.rlim_max;
  VARNIC_CHECK(setrlimit(RLIMIT_NOFILE, &limit) == 0);
}

int Main(int argc, char** argv) {
  RaiseDescriptorLimit();
  for (const Soak& soak : kSoaks) {
    if (argc < 2 || soak.name != std::string(argv[1])) continue;
    std::int64_t count = soak.count;
    if (argc > 3 || (argc == 3 && (!absl::SimpleAtoi(argv[2], &count) || count < 1))) break;
    return soak.run(count);
  }
  return Usage();
}

}  // namespace
}  // namespace varnic

int main(int argc, char** argv) {
  return varnic::Main(argc, argv);
}
