// Unary calls by varnic::Client. Prints one line of JSON.

#include <functional>
#include <string>
#include <vector>

#include "bench/side_by_side/load_options.h"
#include "bench/side_by_side/measurement.h"
#include "bench/side_by_side/scenario.h"
#include "core/client/client.h"
#include "core/net/event_loop.h"
#include "rpc/profile/profile.rpc.h"

namespace varnic::bench {
namespace {

class Load {
 public:
  explicit Load(const LoadOptions& options)
      : options_(options), measurement_(options.server), client_(loop_, options.address) {
    request_.set_value(std::string(kTextBytes, 'x'));
  }

  void Run() {
    std::vector<google::protobuf::StringValue> responses(
        static_cast<std::size_t>(options_.outstanding));
    for (auto& response : responses) Call(response);
    RunFor(options_.warm_up);
    measurement_.Begin();
    const std::int64_t end = NowNs() + static_cast<std::int64_t>(options_.seconds * 1e9);
    loop_.RunUntil([this, end] { return measurement_.MayEnd(end); });
    measurement_.End();
    over_ = true;
    measurement_.NoteLatencies();
    measurement_.NoteRate();
    measurement_.Print();
  }

 private:
  void Call(google::protobuf::StringValue& response) {
    const std::int64_t start = NowNs();
    client_.Call(method_, request_, response, absl::InfiniteDuration(),
                 [this, &response, start](const absl::Status& status) {
                   if (over_) return;
                   if (!status.ok()) Fail(status.ToString());
                   if (response.value() != request_.value()) Fail("not the response");
                   measurement_.Count(NowNs() - start);
                   Call(response);
                 });
  }

  void RunFor(double seconds) {
    const std::int64_t end = NowNs() + static_cast<std::int64_t>(seconds * 1e9);
    loop_.RunUntil([end] { return NowNs() >= end; });
  }

  const LoadOptions options_;
  const google::protobuf::MethodDescriptor& method_ =
      *::rpc::ProfileRpc::descriptor()->FindMethodByName("Name");
  ProfileId request_;
  bool over_ = false;
  Measurement measurement_;
  net::EventLoop loop_;
  Client client_;
};

}  // namespace
}  // namespace varnic::bench

int main(int argc, char** argv) {
  varnic::bench::Load(varnic::bench::ParseLoadOptions(argc, argv)).Run();
}
