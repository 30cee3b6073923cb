#include "tests/soak/soaked_host.h"

#include <malloc.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <utility>

#include "absl/strings/numbers.h"
#include "absl/strings/str_cat.h"
#include "absl/strings/str_split.h"
#include "base/logging.h"
#include "core/common/rpc/fatal.h"
#include "core/common/rpc/stream/callback_stream.h"
#include "core/common/rpc/stream/event_publisher.h"
#include "core/net/address.h"
#include "rpc/profile/profile.rpc.h"
#include "tests/served_host.h"

namespace varnic {
namespace {

using google::protobuf::Closure;
using google::protobuf::RpcController;
using google::protobuf::StringValue;

constexpr absl::Duration kPatience = absl::Seconds(60);

std::int64_t HeapBytes() {
  const struct mallinfo2 heap = mallinfo2();
  return static_cast<std::int64_t>(heap.uordblks + heap.hblkhd);
}

std::int64_t RssBytes() {
  std::ifstream statm("/proc/self/statm");
  std::int64_t total = 0;
  std::int64_t resident = 0;
  statm >> total >> resident;
  return resident * sysconf(_SC_PAGESIZE);
}

std::int64_t CountEntries(const char* folder) {
  std::int64_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(folder)) ++count;
  return count;
}

// Path() gives the figures. Name("10000 key") publishes an event of about 10,000 bytes under "key".
class Host : public rpc::ProfileRpc {
 public:
  explicit Host(RpcServer& server) : server_(server) {}

  void Path(RpcController* /*controller*/, const ProfileId* /*request*/, StringValue* response,
            Closure* done) override {
    response->set_value(absl::StrCat(
        "heap=", HeapBytes(), " rss=", RssBytes(), " threads=", CountEntries("/proc/self/task"),
        " descriptors=", CountEntries("/proc/self/fd"),
        " streams=", server_.streams().open_streams(),
        " keys=", EventStream<::rpc::NetworkChanged>::stream_map_.size(),
        " callback_keys=", CallbackStream<::rpc::CanAccessFile>::stream_map_.size(),
        " conflated=", server_.streams().conflated_events()));
    done->Run();
  }

  void Name(RpcController* /*controller*/, const ProfileId* request, StringValue* response,
            Closure* done) override {
    const std::pair<std::string, std::string> parts =
        absl::StrSplit(request->value(), absl::MaxSplits(' ', 1));
    std::size_t bytes = 0;
    VARNIC_CHECK(absl::SimpleAtoi(parts.first, &bytes));
    ::rpc::NetworkChanged event;
    event.set_online(true);
    if (bytes > 0) event.add_interfaces()->set_name(std::string(bytes, 'x'));
    response->set_value(absl::StrCat(publisher_.Publish(MakeProfileId(parts.second), event)));
    done->Run();
  }

 private:
  RpcServer& server_;
  EventPublisher<::rpc::NetworkChanged> publisher_;
};

// The host's process, until it is killed.
[[noreturn]] void Serve(const std::string& address, const ServerOptions& options, int ready) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  logging::SetMinLogLevel(logging::LOGGING_ERROR);  // Each of a million clients would be warned of.
  RpcServer server(options);
  Host host(server);
  server.AddService(host);
  VARNIC_CHECK(server.Listen(address).ok());
  VARNIC_CHECK(write(ready, "", 1) == 1);
  close(ready);
  server.Run();
  std::exit(0);
}

// Ends this process if the call failed: a soak goes on only with a host that answers.
std::string TextOf(const absl::StatusOr<StringValue>& answer) {
  if (answer.ok()) return answer->value();
  std::fprintf(stderr, "the host no longer answers: %s\n", answer.status().ToString().c_str());
  std::exit(1);
}

}  // namespace

SoakedHost::SoakedHost(const ServerOptions& options) : address_(NewSocketAddress()) {
  int ready[2];
  VARNIC_CHECK(pipe(ready) == 0);
  process_ = fork();
  VARNIC_CHECK(process_ >= 0);
  if (process_ == 0) Serve(address_, options, ready[1]);
  char byte;
  VARNIC_CHECK(read(ready[0], &byte, 1) == 1);
  close(ready[0]);
  close(ready[1]);
}

SoakedHost::~SoakedHost() {
  kill(process_, SIGKILL);
  waitpid(process_, nullptr, 0);
  unlink(net::Address::Parse(address_)->path.c_str());
}

HostFigures SoakedHost::Figures() {
  std::map<std::string, std::int64_t> figures;
  const std::string text = TextOf(profiles_.PathAndWait(ProfileId(), kPatience));
  for (const absl::string_view figure : absl::StrSplit(text, ' ')) {
    const std::pair<std::string, absl::string_view> parts = absl::StrSplit(figure, '=');
    VARNIC_CHECK(absl::SimpleAtoi(parts.second, &figures[parts.first]));
  }
  HostFigures result;
  result.heap_bytes = figures["heap"];
  result.rss_bytes = figures["rss"];
  result.threads = figures["threads"];
  result.descriptors = figures["descriptors"];
  result.streams = figures["streams"];
  result.subscribed_keys = figures["keys"];
  result.callback_keys = figures["callback_keys"];
  result.conflated_events = figures["conflated"];
  return result;
}

std::size_t SoakedHost::Publish(const std::string& key, std::size_t bytes) {
  std::size_t taken = 0;
  const ProfileId what = MakeProfileId(absl::StrCat(bytes, " ", key));
  VARNIC_CHECK(absl::SimpleAtoi(TextOf(profiles_.NameAndWait(what, kPatience)), &taken));
  return taken;
}

HostFigures SoakedHost::WaitUntil(const std::function<bool(const HostFigures&)>& holds) {
  while (true) {
    const HostFigures figures = Figures();
    if (holds(figures)) return figures;
  }
}

}  // namespace varnic
