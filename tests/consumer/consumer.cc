// Derives from the skeleton, serves it, and calls it, with what is installed and nothing else.

#include <cstdio>
#include <string>
#include <thread>

#include "core/client/client.h"
#include "core/common/rpc/testing/recording_channel.h"
#include "core/server/rpc_server.h"
#include "rpc/profile/profile.rpc.h"

namespace {

class Host : public rpc::ProfileRpc {
 public:
  void Name(google::protobuf::RpcController* /*controller*/, const ProfileId* request,
            google::protobuf::StringValue* response, google::protobuf::Closure* done) override {
    response->set_value("profile " + request->value());
    done->Run();
  }
};

bool CallOverASocket(Host& host) {
  varnic::RpcServer server;
  server.AddService(host);
  const auto address = server.Listen("127.0.0.1:0");
  if (!address.ok()) return false;
  std::thread thread([&server] { server.Run(); });

  varnic::net::EventLoop loop;
  varnic::Client client(loop, *address);
  ProfileId request;
  request.set_value("one");
  google::protobuf::StringValue response;
  const auto status = client.CallAndWait(*rpc::ProfileRpc::descriptor()->FindMethodByName("Name"),
                                         request, response, absl::Seconds(30));
  server.Post([&server] { server.Stop(); });
  thread.join();
  return status.ok() && response.value() == "profile one";
}

bool OpenAStream(Host& host) {
  varnic::testing::RecordingChannel channel;
  varnic::AbstractStream* stream =
      host.OpenStream(rpc::ProfileRpc::descriptor()->method(9), channel.Open());
  stream->OnCompleted();
  delete stream;
  return channel.completions() == 1;
}

}  // namespace

int main() {
  Host host;
  const bool passed = CallOverASocket(host) && OpenAStream(host);
  std::puts(passed ? "passed" : "failed");
  return passed ? 0 : 1;
}
