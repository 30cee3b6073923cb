#ifndef FUZZ_SERVED_CONNECTION_H_
#define FUZZ_SERVED_CONNECTION_H_

#include <cstddef>
#include <deque>
#include <memory>
#include <string>
#include <string_view>

#include "absl/time/time.h"
#include "core/common/rpc/stream/callback_caller.h"
#include "core/common/rpc/stream/event_publisher.h"
#include "core/net/event_loop.h"
#include "core/net/grpc_server_connection.h"
#include "core/net/testing/fake_byte_stream.h"
#include "core/net/testing/fake_clock.h"
#include "core/server/health/health_service.h"
#include "core/server/loop_scheduler.h"
#include "core/server/reflection/reflection_service.h"
#include "core/server/service_table.h"
#include "core/server/stream_table.h"
#include "rpc/profile/profile.pb.h"
#include "rpc/profile/profile.rpc.h"

namespace varnic::fuzz {

// The profile service as a host may serve it: one method answers at once, one later, and one not at
// all.
class FuzzedProfile final : public ::rpc::ProfileRpc {
 public:
  ~FuzzedProfile() override { AnswerKept(); }

  void Path(google::protobuf::RpcController* controller, const ProfileId* request,
            google::protobuf::StringValue* response, google::protobuf::Closure* done) override;
  void Name(google::protobuf::RpcController* controller, const ProfileId* request,
            google::protobuf::StringValue* response, google::protobuf::Closure* done) override;

  // Every Name() that waits.
  void AnswerKept();

 private:
  std::deque<google::protobuf::Closure*> kept_;
};

// A server's one connection, in memory, with what the server has behind it. The target is the
// client, and the host, which pushes events and asks questions. Time passes only when it says so.
//
// The destructor ends the connection, if nothing else has, and checks that nothing of it is left:
// no stream, no entry in a registry, no question without an end.
class ServedConnection final : private net::GrpcServerConnection::Visitor {
 public:
  ServedConnection();
  ~ServedConnection() override;
  ServedConnection(const ServedConnection&) = delete;
  ServedConnection& operator=(const ServedConnection&) = delete;

  // From the client, in pieces of that size.
  void Send(std::string_view bytes, std::size_t piece_size);
  // To the client, since the last call. Bounded by what it has sent and the host has pushed.
  std::string Take();
  net::testing::FakePeer& peer() { return peer_; }

  // The host's side.
  void Publish(const std::string& profile);
  void AskAccess(const std::string& profile);
  void AskCredentials(const std::string& profile);
  void Withdraw();
  void AnswerKept() { profile_.AnswerKept(); }
  // Tells health checks that the service stops taking calls, or takes them again.
  void ToggleServing();
  void Drain();

  void PassTime(absl::Duration duration);

 private:
  void OnCall(net::GrpcServerCall& call, const net::GrpcRequestHead& head) override;
  void OnConnectionClosed(net::GrpcServerConnection& connection,
                          const absl::Status& status) override;

  void ServeBuiltIns();
  template <class T>
  void Ask(CallbackCaller<T>& caller, const std::string& profile);
  void CheckNothingIsLeft();

  std::size_t most_output_;
  std::size_t output_ = 0;
  int questions_ = 0;
  int ends_ = 0;
  CallId last_access_ = 0;
  bool serving_ = true;
  bool draining_ = false;

  net::testing::FakeClock clock_;
  net::testing::FakePeer peer_;
  net::EventLoop loop_;
  LoopScheduler scheduler_{loop_};
  EventPublisher<::rpc::NetworkChanged> publisher_;
  std::unique_ptr<CallbackCaller<::rpc::CanAccessFile>> access_;
  std::unique_ptr<CallbackCaller<::rpc::Authenticate>> credentials_;
  FuzzedProfile profile_;
  ServiceTable services_;
  StreamTable streams_;
  HealthService health_;
  ReflectionService reflection_;
  std::unique_ptr<net::GrpcServerConnection> connection_;  // Null once it has ended.
};

}  // namespace varnic::fuzz

#endif  // FUZZ_SERVED_CONNECTION_H_
