#include "tests/served_host.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <utility>

#include "absl/strings/str_cat.h"
#include "core/client/client.h"
#include "rpc/profile/profile.client.h"

namespace varnic {
namespace {

// Long enough for a loaded machine under a sanitizer; reached only by a failure.
constexpr std::chrono::seconds kPatience(60);

void EchoMetadata(ServerController& controller) {
  const auto& metadata = controller.metadata();
  EXPECT_TRUE(controller.AddInitialMetadata("x-initial", metadata.Find("x-ask").value_or("")).ok());
  EXPECT_TRUE(
      controller.AddTrailingMetadata("x-trailing-bin", metadata.Find("x-ask-bin").value_or(""))
          .ok());
}

}  // namespace

TestHost::~TestHost() {
  JoinThreads();
  AnswerKept();
}

void TestHost::Path(google::protobuf::RpcController* controller, const ProfileId* request,
                    google::protobuf::StringValue* response, google::protobuf::Closure* done) {
  ServerController& server_controller = ServerController::From(controller);
  const std::string& id = request->value();
  if (id == "kept") return Keep(server_controller, {response, done});

  response->set_value("/profiles/" + id);
  const auto answer = [done] { done->Run(); };
  if (id == "later") return post_(answer);
  if (id == "elsewhere") {
    threads_.emplace_back([this, answer] { post_(answer); });
    return;
  }
  if (id == "failed") controller->SetFailed("it failed: 100 %");
  if (id == "missing") server_controller.SetStatus(absl::NotFoundError("no such profile"));
  if (id == "metadata" || id == "failed metadata") EchoMetadata(server_controller);
  if (id == "long text" || id == "failed metadata")
    server_controller.SetStatus(absl::InternalError(std::string(100'000, '%')));
  if (id == "deadline") {
    response->set_value(
        absl::StrCat(absl::ToInt64Seconds(server_controller.deadline() - absl::Now())));
  }
  done->Run();
}

void TestHost::AnswerKept() {
  for (const KeptCall& call : std::exchange(kept_, {})) {
    call.response->set_value("/kept");
    call.done->Run();
  }
}

void TestHost::JoinThreads() {
  for (std::thread& thread : std::exchange(threads_, {})) thread.join();
}

void TestHost::Keep(ServerController& controller, const KeptCall& call) {
  kept_.push_back(call);
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++kept_count_;
  }
  changed_.notify_all();
  controller.NotifyOnCancel(google::protobuf::NewCallback(this, &TestHost::OnEnd, &controller));
}

void TestHost::OnEnd(ServerController* controller) {
  const bool cancelled = controller->IsCanceled();
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++notifications_;
    if (cancelled) ++cancellations_;
  }
  changed_.notify_all();
  if (cancelled && answer_when_cancelled_) AnswerKept();
}

bool TestHost::WaitForKept(int count) {
  return WaitFor(kept_count_, count);
}

bool TestHost::WaitForCancelled(int count) {
  return WaitFor(cancellations_, count);
}

int TestHost::notifications() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return notifications_;
}

int TestHost::cancellations() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return cancellations_;
}

bool TestHost::WaitFor(const int& counter, int count) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, kPatience, [&] { return counter >= count; });
}

ServedHost::ServedHost(const std::string& where, const ServerOptions& options)
    : server_(std::make_unique<RpcServer>(options)) {
  host_.set_post([this](std::function<void()> task) { server_->Post(std::move(task)); });
  server_->AddService(host_);
  const auto address = server_->Listen(where == "unix" ? NewSocketAddress() : where);
  EXPECT_TRUE(address.ok()) << address.status();
  address_ = address.value_or("");
  thread_ = std::thread([this] {
    server_->Run();
    const std::lock_guard<std::mutex> lock(mutex_);
    has_stopped_ = true;
    changed_.notify_all();
  });
}

ServedHost::~ServedHost() {
  if (server_ != nullptr) Stop();
}

void ServedHost::RunOnServer(const std::function<void()>& task) {
  bool has_run = false;
  server_->Post([&] {
    task();
    const std::lock_guard<std::mutex> lock(mutex_);
    has_run = true;
    changed_.notify_all();
  });
  {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return has_run || has_stopped_; });
  }
  // A server that has drained runs nothing any more; this thread takes its place.
  while (!has_run) {
    if (thread_.joinable()) thread_.join();
    server_->loop().RunPending();
  }
}

bool ServedHost::WaitUntilStopped() {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, std::chrono::seconds(60), [this] { return has_stopped_; });
}

void ServedHost::Stop() {
  RunOnServer([this] { host_.JoinThreads(); });
  RunOnServer([this] { server_->Stop(); });
  if (thread_.joinable()) thread_.join();
  server_ = nullptr;
}

std::string NewSocketAddress() {
  static std::atomic<int> number = 0;
  return absl::StrCat("unix:", ::testing::TempDir(), "varnic_", getpid(), "_", ++number);
}

ProfileId MakeProfileId(const std::string& value) {
  ProfileId id;
  id.set_value(value);
  return id;
}

absl::Status FreshCall(const std::string& address) {
  net::EventLoop loop;
  Client client(loop, address);
  const auto path =
      rpc::ProfileClient(client).PathAndWait(MakeProfileId("fresh"), absl::Seconds(60));
  if (path.ok() && path->value() != "/profiles/fresh") return absl::InternalError(path->value());
  return path.status();
}

}  // namespace varnic
