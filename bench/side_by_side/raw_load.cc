// The load generator for what has no RPC: the bare echo, and Redis. Prints one line of JSON.

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "bench/side_by_side/load_options.h"
#include "bench/side_by_side/load_socket.h"
#include "bench/side_by_side/measurement.h"
#include "bench/side_by_side/scenario.h"

namespace varnic::bench {
namespace {

// Sockets to one server, watched together. `on_bytes` is called with the index of a socket.
class Connections {
 public:
  template <class OnBytes>
  Connections(const std::string& address, int count, OnBytes on_bytes) {
    for (int i = 0; i < count; ++i) {
      sockets_.push_back(std::make_unique<LoadSocket>(address));
      LoadSocket& socket = *sockets_.back();
      watch_.Add(socket, [&socket, i, on_bytes] { on_bytes(i, socket.Read().size()); });
    }
  }

  LoadSocket& operator[](int index) { return *sockets_[static_cast<std::size_t>(index)]; }
  SocketWatch& watch() { return watch_; }

 private:
  std::vector<std::unique_ptr<LoadSocket>> sockets_;
  SocketWatch watch_;  // Last: knows the sockets.
};

void RunFor(SocketWatch& watch, double seconds) {
  const std::int64_t end = NowNs() + static_cast<std::int64_t>(seconds * 1e9);
  watch.RunUntil([end] { return NowNs() >= end; });
}

// Keeps messages under way on each connection, and sends one for each that has come back. The
// latency is that of one message alone.
void MeasureEchoes(const LoadOptions& options) {
  const std::string message(kMessageBytes, 'm');
  Measurement measurement(options.server);
  std::vector<std::size_t> came(static_cast<std::size_t>(options.connections));
  std::int64_t sent_ns = NowNs();
  Connections* all = nullptr;
  std::string batch;
  Connections connections(options.address, options.connections, [&](int index, std::size_t size) {
    std::size_t& bytes = came[static_cast<std::size_t>(index)];
    bytes += size;
    const std::int64_t now = NowNs();
    batch.clear();
    for (; bytes >= kMessageBytes; bytes -= kMessageBytes) {
      measurement.Count(now - sent_ns);
      batch += message;
    }
    sent_ns = now;
    (*all)[index].Write(batch);
  });
  all = &connections;
  for (int i = 0; i < options.connections; ++i) {
    for (int j = 0; j < options.outstanding; ++j) connections[i].Write(message);
  }
  RunFor(connections.watch(), options.warm_up);
  measurement.Begin();
  const std::int64_t end = NowNs() + static_cast<std::int64_t>(options.seconds * 1e9);
  connections.watch().RunUntil([&measurement, end] { return measurement.MayEnd(end); });
  measurement.End();
  if (options.connections * options.outstanding == 1) measurement.NoteLatencies();
  measurement.NoteRate();
  measurement.Print();
}

// How a server is told to subscribe a connection, and to publish.
struct FanOutProtocol {
  std::string subscribe;
  std::size_t subscribed_bytes;  // The answer to that.
  std::string publish;
  std::size_t published_bytes;
  std::size_t event_bytes;  // With all that the protocol puts around it.
};

FanOutProtocol EchoProtocol() {
  const std::string subscribe = "S" + std::string(kMessageBytes - 1, '.');
  const std::string publish = "P" + std::string(kMessageBytes - 1, '.');
  return {subscribe, kMessageBytes, publish, kMessageBytes, kMessageBytes};
}

// In RESP, version 2, which lengths and all are always the same.
FanOutProtocol RedisProtocol(int subscribers) {
  const std::string event(kMessageBytes, 'e');
  const std::string channel = "$6\r\nevents\r\n";
  const std::string delivery = "*3\r\n$7\r\nmessage\r\n" + channel + "$64\r\n" + event + "\r\n";
  const std::string subscribed = "*3\r\n$9\r\nsubscribe\r\n" + channel + ":1\r\n";
  const std::string published = ":" + std::to_string(subscribers) + "\r\n";
  return {"SUBSCRIBE events\r\n", subscribed.size(), "PUBLISH events " + event + "\r\n",
          published.size(), delivery.size()};
}

// Makes the server send an event to all connections but the first, and again when the last one has
// it.
void MeasureFanOut(const LoadOptions& options, const FanOutProtocol& protocol) {
  std::size_t events_came = 0;
  std::size_t published_came = 0;
  Connections connections(
      options.address, options.connections + 1,
      [&](int index, std::size_t size) { (index == 0 ? published_came : events_came) += size; });
  const auto subscribers = static_cast<std::size_t>(options.connections);
  for (int i = 1; i <= options.connections; ++i) connections[i].Write(protocol.subscribe);
  connections.watch().RunUntil(
      [&] { return events_came == subscribers * protocol.subscribed_bytes; });
  const auto publish = [&] {
    events_came = 0;
    published_came = 0;
    std::int64_t last_event_ns = 0;
    connections[0].Write(protocol.publish);
    connections.watch().RunUntil([&] {
      const bool all_came = events_came == subscribers * protocol.event_bytes;
      if (all_came && last_event_ns == 0) last_event_ns = NowNs();
      return all_came && published_came == protocol.published_bytes;
    });
    return last_event_ns;
  };
  publish();
  Measurement measurement(options.server);
  measurement.Begin();
  const std::int64_t end = NowNs() + static_cast<std::int64_t>(options.seconds * 1e9);
  do {
    const std::int64_t start = NowNs();
    measurement.Count(publish() - start);
  } while (NowNs() < end);
  measurement.End();
  measurement.NoteLatencies();
  measurement.CountMany(measurement.count() * (options.connections - 1));
  measurement.NoteRate();
  measurement.Print();
}

// What the server keeps for connections on which nothing goes on.
void MeasureIdle(const LoadOptions& options) {
  Measurement measurement(options.server);
  std::size_t came = 0;
  const auto open = [&](int count) {
    came = 0;
    auto connections = std::make_unique<Connections>(
        options.address, count, [&](int /*index*/, std::size_t size) { came += size; });
    for (int i = 0; i < count; ++i) (*connections)[i].Write("hello");
    connections->watch().RunUntil([&] { return came == 5 * static_cast<std::size_t>(count); });
    return connections;
  };
  const auto first = open(10);
  const std::int64_t before = ResidentBytes(options.server);
  const auto all = open(options.connections);
  const auto bytes = static_cast<double>(ResidentBytes(options.server) - before);
  measurement.Note("bytes", bytes / options.connections);
  measurement.Print();
}

void EchoOnce(int fd) {
  LoadSocket socket(fd);
  socket.Write("hello");
  while (socket.Read().empty()) continue;
}

void Run(const LoadOptions& options) {
  // To what has no RPC, a call and a question are the same.
  if (options.mode == "unary" || options.mode == "questions") {
    MeasureEchoes(options);
  } else if (options.mode == "fan-out") {
    MeasureFanOut(options, EchoProtocol());
  } else if (options.mode == "redis-fan-out") {
    MeasureFanOut(options, RedisProtocol(options.connections));
  } else if (options.mode == "idle") {
    MeasureIdle(options);
  } else if (options.mode == "start") {
    MeasureStart(options, EchoOnce);
  } else {
    Fail("no such mode: " + options.mode);
  }
}

}  // namespace
}  // namespace varnic::bench

int main(int argc, char** argv) {
  varnic::bench::Run(varnic::bench::ParseLoadOptions(argc, argv));
}
