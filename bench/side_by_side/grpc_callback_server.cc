// grpc++ with its callback service: a reactor for each call, on the library's own threads.

#include <grpcpp/generic/async_generic_service.h>

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>

#include "bench/side_by_side/grpc_server_program.h"
#include "bench/side_by_side/scenario.h"
#include "rpc/profile/profile.grpc.pb.h"

namespace varnic::bench {
namespace {

using google::protobuf::BoolValue;
using google::protobuf::StringValue;
using grpc::ByteBuffer;
using grpc::CallbackServerContext;
using grpc::ServerUnaryReactor;
using grpc::Status;

class FileStream;
class EventStream;

// The streams that are open.
struct Registry {
  std::mutex mutex;
  std::set<EventStream*> subscribers;
  std::map<std::string, FileStream*> file_streams;
};

// A stream that answers questions: one write is under way at a time, and the others wait.
class FileStream final
    : public grpc::ServerBidiReactor<::rpc::CanAccessFile, ::rpc::CanAccessFile> {
 public:
  explicit FileStream(Registry& registry) : registry_(registry) {
    *question_.mutable_request() = MakeRequest<::rpc::CanAccessFile::Request>();
    StartSendInitialMetadata();
    StartRead(&message_);
  }

  void Ask(const ProfileId& key, int count) {
    const std::lock_guard lock(mutex_);
    *question_.mutable_profile_id() = key;
    waiting_ += count;
    WriteNext();
  }

 private:
  void WriteNext() {
    if (writing_ || waiting_ == 0) return;
    writing_ = true;
    --waiting_;
    question_.set_call_id(++last_call_id_);
    StartWrite(&question_);
  }
  void OnWriteDone(bool ok) override {
    const std::lock_guard lock(mutex_);
    writing_ = false;
    if (ok) WriteNext();
  }
  void OnReadDone(bool ok) override {
    if (!ok) return End();
    if (message_.kind_case() == ::rpc::CanAccessFile::kResponse) {
      Ask(message_.profile_id(), 1);
    } else {
      key_ = message_.profile_id().value();
      const std::lock_guard lock(registry_.mutex);
      registry_.file_streams[key_] = this;
    }
    StartRead(&message_);
  }
  void End() {
    {
      const std::lock_guard lock(registry_.mutex);
      registry_.file_streams.erase(key_);
    }
    Finish(Status::OK);
  }
  void OnDone() override { delete this; }

  Registry& registry_;
  std::string key_;
  ::rpc::CanAccessFile message_;
  std::mutex mutex_;
  ::rpc::CanAccessFile question_;
  bool writing_ = false;
  int waiting_ = 0;
  std::int64_t last_call_id_ = 0;
};

// A stream of events. Takes them serialised, so that one serialisation does for all subscribers.
class EventStream final : public grpc::ServerBidiReactor<ByteBuffer, ByteBuffer> {
 public:
  explicit EventStream(Registry& registry) : registry_(registry) {
    StartSendInitialMetadata();
    StartRead(&message_);
  }

  // A reader that is slower than the events gets the newest.
  void Send(const ByteBuffer& event) {
    const std::lock_guard lock(mutex_);
    (writing_ ? next_event_ : event_) = event;
    if (!writing_) StartWrite(&event_);
    writing_ = true;
  }

 private:
  void OnWriteDone(bool ok) override {
    const std::lock_guard lock(mutex_);
    writing_ = ok && next_event_.Valid();
    if (!writing_) return;
    event_.Swap(&next_event_);
    next_event_.Clear();
    StartWrite(&event_);
  }
  void OnReadDone(bool ok) override {
    if (!ok) return End();
    {
      const std::lock_guard lock(registry_.mutex);
      registry_.subscribers.insert(this);
    }
    StartRead(&message_);
  }
  void End() {
    {
      const std::lock_guard lock(registry_.mutex);
      registry_.subscribers.erase(this);
    }
    Finish(Status::OK);
  }
  void OnDone() override { delete this; }

  Registry& registry_;
  ByteBuffer message_;
  std::mutex mutex_;
  bool writing_ = false;
  ByteBuffer event_;
  ByteBuffer next_event_;
};

class EchoHost final
    : public ::rpc::Profile::WithRawCallbackMethod_WhenNetworkChanged<
          ::rpc::Profile::WithCallbackMethod_OnCanAccessFile<
              ::rpc::Profile::WithCallbackMethod_Name<::rpc::Profile::WithCallbackMethod_Path<
                  ::rpc::Profile::WithCallbackMethod_IsDefault<::rpc::Profile::Service>>>>> {
 private:
  ServerUnaryReactor* Name(CallbackServerContext* context, const ProfileId* request,
                           StringValue* response) override {
    response->set_value(request->value());
    return Finish(context, Status::OK);
  }

  ServerUnaryReactor* Path(CallbackServerContext* context, const ProfileId* request,
                           StringValue* response) override {
    const grpc::Slice bytes(MakeEvent<::rpc::NetworkChanged>(request->value()).SerializeAsString());
    const ByteBuffer event(&bytes, 1);
    const std::lock_guard lock(registry_.mutex);
    for (EventStream* subscriber : registry_.subscribers) subscriber->Send(event);
    response->set_value(std::to_string(registry_.subscribers.size()));
    return Finish(context, Status::OK);
  }

  ServerUnaryReactor* IsDefault(CallbackServerContext* context, const ProfileId* request,
                                BoolValue* /*response*/) override {
    const std::lock_guard lock(registry_.mutex);
    const auto stream = registry_.file_streams.find(request->value());
    if (stream == registry_.file_streams.end()) {
      return Finish(context, {grpc::StatusCode::NOT_FOUND, "Nobody answers"});
    }
    stream->second->Ask(*request, OpenQuestions(request->value()));
    return Finish(context, Status::OK);
  }

  grpc::ServerBidiReactor<ByteBuffer, ByteBuffer>* WhenNetworkChanged(
      CallbackServerContext* /*context*/) override {
    return new EventStream(registry_);
  }

  grpc::ServerBidiReactor<::rpc::CanAccessFile, ::rpc::CanAccessFile>* OnCanAccessFile(
      CallbackServerContext* /*context*/) override {
    return new FileStream(registry_);
  }

  static ServerUnaryReactor* Finish(CallbackServerContext* context, const Status& status) {
    ServerUnaryReactor* reactor = context->DefaultReactor();
    reactor->Finish(status);
    return reactor;
  }

  Registry registry_;
};

}  // namespace
}  // namespace varnic::bench

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  varnic::bench::EchoHost host;
  grpc::ServerBuilder builder;
  builder.RegisterService(&host);
  const auto server = varnic::bench::StartGrpcServer(builder, argv[1]);
  if (server == nullptr) return 1;
  server->Wait();
}
