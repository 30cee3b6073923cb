#ifndef CORE_CLIENT_TESTING_SERVED_PROFILE_H_
#define CORE_CLIENT_TESTING_SERVED_PROFILE_H_

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

#include "core/common/rpc/stream/callback_caller.h"
#include "core/common/rpc/stream/event_publisher.h"
#include "core/server/rpc_server.h"
#include "rpc/profile/profile.rpc.h"

namespace varnic::testing {

inline ProfileId Key(const std::string& value) {
  ProfileId key;
  key.set_value(value);
  return key;
}

// A real server of rpc.Profile, on a loop that the test turns. Its streams are over when it is
// destroyed.
class ServedProfile {
 public:
  explicit ServedProfile(const std::string& address, const ServerOptions& options = {})
      : server_(options) {
    server_.AddService(service_);
    const auto listening = server_.Listen(address);
    EXPECT_TRUE(listening.ok()) << listening.status();
  }
  ~ServedProfile() {
    server_.Stop();
    server_.Run();
  }

  RpcServer& server() { return server_; }
  CallbackCaller<rpc::CanAccessFile>& caller() { return caller_; }
  std::size_t Turn() { return server_.loop().RunPending(); }
  std::size_t open_streams() const { return server_.streams().open_streams(); }

  // How many streams took it.
  std::size_t Publish(const std::string& key, const rpc::NetworkChanged& event = {}) {
    return publisher_.Publish(Key(key), event);
  }

  // Asks whether `path` may be read; how that ends is added to `ends`.
  CallId Ask(const std::string& key, const std::string& path,
             absl::Duration timeout = absl::InfiniteDuration()) {
    rpc::CanAccessFile::Request request;
    request.set_path(path);
    return caller_.Call(
        Key(key), request,
        [this](const rpc::CanAccessFile::Response& response) {
          ends.push_back(response.allow() ? "allowed" : "refused");
        },
        [this](const absl::Status& status) { ends.push_back(status.ToString()); }, timeout);
  }

  std::vector<std::string> ends;

 private:
  class Service : public rpc::ProfileRpc {
    void Path(google::protobuf::RpcController* /*controller*/, const ProfileId* request,
              google::protobuf::StringValue* response, google::protobuf::Closure* done) override {
      response->set_value("/profiles/" + request->value());
      done->Run();
    }
  };

  Service service_;
  RpcServer server_;
  EventPublisher<rpc::NetworkChanged> publisher_;
  CallbackCaller<rpc::CanAccessFile> caller_{server_.scheduler()};
};

}  // namespace varnic::testing

#endif  // CORE_CLIENT_TESTING_SERVED_PROFILE_H_
