#ifndef BENCH_ECHO_HOST_H_
#define BENCH_ECHO_HOST_H_

#include "rpc/profile/profile.rpc.h"

namespace varnic {

// Answers Name() at once, with the id that it is asked about, and nothing else.
class EchoHost : public rpc::ProfileRpc {
 public:
  void Name(google::protobuf::RpcController* /*controller*/, const ProfileId* request,
            google::protobuf::StringValue* response, google::protobuf::Closure* done) override {
    response->set_value(request->value());
    done->Run();
  }
};

}  // namespace varnic

#endif  // BENCH_ECHO_HOST_H_
