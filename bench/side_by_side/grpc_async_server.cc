// grpc++ with its asynchronous service: one completion queue, and one thread that serves it, so
// that nothing needs a lock.

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
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
using grpc::Status;

class FileStream;
class EventStream;

using AsyncService = ::rpc::Profile::WithRawMethod_WhenNetworkChanged<
    ::rpc::Profile::WithAsyncMethod_OnCanAccessFile<
        ::rpc::Profile::WithAsyncMethod_Name<::rpc::Profile::WithAsyncMethod_Path<
            ::rpc::Profile::WithAsyncMethod_IsDefault<::rpc::Profile::Service>>>>>;

// What every call needs.
struct Host {
  AsyncService service;
  std::unique_ptr<grpc::ServerCompletionQueue> queue;
  std::set<EventStream*> subscribers;
  std::map<std::string, FileStream*> file_streams;
};

// What the queue hands out.
class Event {
 public:
  virtual ~Event() = default;
  virtual void OnDone(bool ok) = 0;
};

// An event that calls a method of its owner.
template <class Owner, void (Owner::*method)(bool)>
class EventOf final : public Event {
 public:
  explicit EventOf(Owner& owner) : owner_(owner) {}
  void OnDone(bool ok) override { (owner_.*method)(ok); }
  // For the queue.
  void* tag() { return static_cast<Event*>(this); }

 private:
  Owner& owner_;
};

// One unary call after another.
template <class Method>
class UnaryCall final {
 public:
  explicit UnaryCall(Host& host) : host_(host) { Wait(); }

 private:
  struct Call {
    grpc::ServerContext context;
    ProfileId request;
    typename Method::Response response;
    grpc::ServerAsyncResponseWriter<typename Method::Response> writer{&context};
  };

  void Wait() {
    call_.emplace();
    Method::Request(host_, *call_, on_request_.tag());
  }
  void OnRequest(bool ok) {
    if (!ok) return;
    const Status status = Method::Answer(host_, call_->request, call_->response);
    if (status.ok()) {
      call_->writer.Finish(call_->response, status, on_finished_.tag());
    } else {
      call_->writer.FinishWithError(status, on_finished_.tag());
    }
  }
  void OnFinished(bool /*ok*/) { Wait(); }

  Host& host_;
  std::optional<Call> call_;
  EventOf<UnaryCall, &UnaryCall::OnRequest> on_request_{*this};
  EventOf<UnaryCall, &UnaryCall::OnFinished> on_finished_{*this};
};

// A stream that answers questions: one write is under way at a time, and the others wait.
class FileStream final {
 public:
  explicit FileStream(Host& host) : host_(host) {
    *question_.mutable_request() = MakeRequest<::rpc::CanAccessFile::Request>();
    host_.service.RequestOnCanAccessFile(&context_, &stream_, host_.queue.get(), host_.queue.get(),
                                         on_request_.tag());
  }

  void Ask(const ProfileId& key, int count) {
    *question_.mutable_profile_id() = key;
    waiting_ += count;
    WriteNext();
  }

 private:
  void OnRequest(bool ok) {
    if (!ok) return;
    new FileStream(host_);
    stream_.SendInitialMetadata(on_headers_.tag());
  }
  void OnHeaders(bool /*ok*/) { stream_.Read(&message_, on_read_.tag()); }
  void OnRead(bool ok) {
    if (!ok) return End();
    if (message_.kind_case() == ::rpc::CanAccessFile::kResponse) {
      Ask(message_.profile_id(), 1);
    } else {
      key_ = message_.profile_id().value();
      host_.file_streams[key_] = this;
    }
    stream_.Read(&message_, on_read_.tag());
  }
  void WriteNext() {
    if (writing_ || waiting_ == 0) return;
    writing_ = true;
    --waiting_;
    question_.set_call_id(++last_call_id_);
    stream_.Write(question_, on_write_.tag());
  }
  void OnWrite(bool ok) {
    writing_ = false;
    if (ended_) return Finish();
    if (ok) WriteNext();
  }
  void End() {
    host_.file_streams.erase(key_);
    ended_ = true;
    if (!writing_) Finish();
  }
  void Finish() { stream_.Finish(Status::OK, on_finished_.tag()); }
  void OnFinished(bool /*ok*/) { delete this; }

  Host& host_;
  std::string key_;
  grpc::ServerContext context_;
  grpc::ServerAsyncReaderWriter<::rpc::CanAccessFile, ::rpc::CanAccessFile> stream_{&context_};
  ::rpc::CanAccessFile message_;
  ::rpc::CanAccessFile question_;
  bool writing_ = false;
  bool ended_ = false;
  int waiting_ = 0;
  std::int64_t last_call_id_ = 0;
  EventOf<FileStream, &FileStream::OnRequest> on_request_{*this};
  EventOf<FileStream, &FileStream::OnHeaders> on_headers_{*this};
  EventOf<FileStream, &FileStream::OnRead> on_read_{*this};
  EventOf<FileStream, &FileStream::OnWrite> on_write_{*this};
  EventOf<FileStream, &FileStream::OnFinished> on_finished_{*this};
};

// A stream of events. Takes them serialised, so that one serialisation does for all subscribers.
class EventStream final {
 public:
  explicit EventStream(Host& host) : host_(host) {
    host_.service.RequestWhenNetworkChanged(&context_, &stream_, host_.queue.get(),
                                            host_.queue.get(), on_request_.tag());
  }

  // A reader that is slower than the events gets the newest.
  void Send(const ByteBuffer& event) {
    next_event_ = event;
    WriteNext();
  }

 private:
  void OnRequest(bool ok) {
    if (!ok) return;
    new EventStream(host_);
    stream_.SendInitialMetadata(on_headers_.tag());
  }
  void OnHeaders(bool /*ok*/) { stream_.Read(&message_, on_read_.tag()); }
  void OnRead(bool ok) {
    if (!ok) return End();
    host_.subscribers.insert(this);
    stream_.Read(&message_, on_read_.tag());
  }
  void WriteNext() {
    if (writing_ || !next_event_.Valid()) return;
    writing_ = true;
    stream_.Write(next_event_, on_write_.tag());
    next_event_.Clear();
  }
  void OnWrite(bool ok) {
    writing_ = false;
    if (ended_) return Finish();
    if (ok) WriteNext();
  }
  void End() {
    host_.subscribers.erase(this);
    ended_ = true;
    if (!writing_) Finish();
  }
  void Finish() { stream_.Finish(Status::OK, on_finished_.tag()); }
  void OnFinished(bool /*ok*/) { delete this; }

  Host& host_;
  grpc::ServerContext context_;
  grpc::ServerAsyncReaderWriter<ByteBuffer, ByteBuffer> stream_{&context_};
  ByteBuffer message_;
  ByteBuffer next_event_;
  bool writing_ = false;
  bool ended_ = false;
  EventOf<EventStream, &EventStream::OnRequest> on_request_{*this};
  EventOf<EventStream, &EventStream::OnHeaders> on_headers_{*this};
  EventOf<EventStream, &EventStream::OnRead> on_read_{*this};
  EventOf<EventStream, &EventStream::OnWrite> on_write_{*this};
  EventOf<EventStream, &EventStream::OnFinished> on_finished_{*this};
};

struct Name {
  using Response = StringValue;
  template <class Call>
  static void Request(Host& host, Call& call, void* tag) {
    host.service.RequestName(&call.context, &call.request, &call.writer, host.queue.get(),
                             host.queue.get(), tag);
  }
  static Status Answer(Host& /*host*/, const ProfileId& request, StringValue& response) {
    response.set_value(request.value());
    return Status::OK;
  }
};

struct Path {
  using Response = StringValue;
  template <class Call>
  static void Request(Host& host, Call& call, void* tag) {
    host.service.RequestPath(&call.context, &call.request, &call.writer, host.queue.get(),
                             host.queue.get(), tag);
  }
  static Status Answer(Host& host, const ProfileId& request, StringValue& response) {
    const grpc::Slice bytes(MakeEvent<::rpc::NetworkChanged>(request.value()).SerializeAsString());
    const ByteBuffer event(&bytes, 1);
    for (EventStream* subscriber : host.subscribers) subscriber->Send(event);
    response.set_value(std::to_string(host.subscribers.size()));
    return Status::OK;
  }
};

struct IsDefault {
  using Response = BoolValue;
  template <class Call>
  static void Request(Host& host, Call& call, void* tag) {
    host.service.RequestIsDefault(&call.context, &call.request, &call.writer, host.queue.get(),
                                  host.queue.get(), tag);
  }
  static Status Answer(Host& host, const ProfileId& request, BoolValue& /*response*/) {
    const auto stream = host.file_streams.find(request.value());
    if (stream == host.file_streams.end()) {
      return {grpc::StatusCode::NOT_FOUND, "Nobody answers"};
    }
    stream->second->Ask(request, OpenQuestions(request.value()));
    return Status::OK;
  }
};

int Serve(const std::string& address) {
  // As many requests wait as calls are ever open at a time.
  constexpr int kWaitingCalls = 200;
  Host host;
  grpc::ServerBuilder builder;
  builder.RegisterService(&host.service);
  host.queue = builder.AddCompletionQueue();
  const auto server = StartGrpcServer(builder, address);
  if (server == nullptr) return 1;
  std::deque<UnaryCall<Name>> names;
  for (int i = 0; i < kWaitingCalls; ++i) names.emplace_back(host);
  UnaryCall<Path> path(host);
  UnaryCall<IsDefault> is_default(host);
  new FileStream(host);
  for (int i = 0; i < kWaitingCalls; ++i) new EventStream(host);
  void* event = nullptr;
  bool ok = false;
  while (host.queue->Next(&event, &ok)) static_cast<Event*>(event)->OnDone(ok);
  return 0;
}

}  // namespace
}  // namespace varnic::bench

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  return varnic::bench::Serve(argv[1]);
}
