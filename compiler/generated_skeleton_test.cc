// A generated skeleton whose methods have the names of its own parameters.

#include <google/protobuf/empty.pb.h>
#include <google/protobuf/stubs/callback.h>
#include <gtest/gtest.h>

#include <string>

#include "no_package.rpc.h"

namespace varnic {
namespace {

using google::protobuf::Closure;
using google::protobuf::Empty;
using google::protobuf::RpcController;

class OddNames final : public Odd_namesRpc {
 public:
  void done(RpcController* /*controller*/, const Empty* /*request*/, Empty* /*response*/,
            Closure* done) override {
    called += "done ";
    done->Run();
  }
  void method(RpcController* /*controller*/, const Empty* /*request*/, Empty* /*response*/,
              Closure* done) override {
    called += "method ";
    done->Run();
  }

  std::string called;
};

TEST(GeneratedSkeletonTest, MethodWithTheNameOfAParameterIsDispatchedToItsOverride) {
  OddNames service;
  Empty request;
  Empty response;

  for (const char* name : {"method", "done"}) {
    service.CallMethod(Odd_namesRpc::descriptor()->FindMethodByName(name), nullptr, &request,
                       &response, google::protobuf::NewCallback(google::protobuf::DoNothing));
  }

  EXPECT_EQ(service.called, "method done ");
}

}  // namespace
}  // namespace varnic
