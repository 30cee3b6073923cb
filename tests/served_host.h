#ifndef TESTS_SERVED_HOST_H_
#define TESTS_SERVED_HOST_H_

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "absl/time/time.h"
#include "core/server/rpc_server.h"
#include "core/server/server_controller.h"
#include "rpc/profile/profile.rpc.h"

namespace varnic {

// A host whose Path() ends calls in every way there is, by the id that it is asked about:
//
//   failed, missing   fails, with a text alone and with a status
//   later, elsewhere  answers from a posted task, posted by this thread and by another one
//   kept              answers when the test says so
//   deadline          answers with the whole seconds that are left
//   long text         fails with a text of 100 kB
//   metadata          answers with the client's x-ask as x-initial, ahead, and its x-ask-bin as
//                     x-trailing-bin, behind; "failed metadata" does so and fails with the long
//                     text
//   anything else     answers "/profiles/" and the id
//
// No other method is overridden. What waits for counts may be called from any thread; the rest
// belongs to the RPC thread.
class TestHost : public rpc::ProfileRpc {
 public:
  ~TestHost() override;

  // `post` runs a task on the RPC thread.
  void set_post(std::function<void(std::function<void()>)> post) { post_ = std::move(post); }

  void Path(google::protobuf::RpcController* controller, const ProfileId* request,
            google::protobuf::StringValue* response, google::protobuf::Closure* done) override;

  // Answers all calls that are kept. Fine when their clients and even the server are gone.
  void AnswerKept();
  // Does so as soon as one of them is cancelled, inside the notification.
  void AnswerWhenCancelled() { answer_when_cancelled_ = true; }
  void JoinThreads();

  // False if it does not come to that.
  bool WaitForKept(int count);
  // Counts those whose closure found IsCanceled() true.
  bool WaitForCancelled(int count);
  // How often any closure of NotifyOnCancel() has run.
  int notifications();
  int cancellations();

 private:
  struct KeptCall {
    google::protobuf::StringValue* response;
    google::protobuf::Closure* done;
  };

  void Keep(ServerController& controller, const KeptCall& call);
  void OnEnd(ServerController* controller);
  bool WaitFor(const int& counter, int count);

  std::function<void(std::function<void()>)> post_;
  std::vector<KeptCall> kept_;
  std::vector<std::thread> threads_;
  bool answer_when_cancelled_ = false;

  std::mutex mutex_;  // For what follows.
  std::condition_variable changed_;
  int kept_count_ = 0;
  int notifications_ = 0;
  int cancellations_ = 0;
};

// A TestHost behind a server that runs in a thread of its own.
class ServedHost {
 public:
  // `where` is an address, or "unix" for a socket of this object's own.
  explicit ServedHost(const std::string& where = "unix", const ServerOptions& options = {});
  ~ServedHost();

  TestHost& host() { return host_; }
  RpcServer& server() { return *server_; }
  const std::string& address() const { return address_; }

  // Runs `task` on the RPC thread and waits for its end; on this thread, if the server has stopped.
  void RunOnServer(const std::function<void()>& task);
  // Whether the server comes to stop by itself.
  bool WaitUntilStopped();
  // Stops and destroys the server; the host stays.
  void Stop();

 private:
  TestHost host_;
  std::unique_ptr<RpcServer> server_ = nullptr;
  std::string address_;
  std::thread thread_;

  std::mutex mutex_;  // For what follows.
  std::condition_variable changed_;
  bool has_stopped_ = false;
};

// An address in the tests' own folder that no other test has.
std::string NewSocketAddress();

ProfileId MakeProfileId(const std::string& value);

// How a new client's call of Path() for "fresh" ends: OK if the server is in good health.
absl::Status FreshCall(const std::string& address);

}  // namespace varnic

#endif  // TESTS_SERVED_HOST_H_
