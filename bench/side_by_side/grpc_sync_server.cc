// grpc++ with its plain synchronous service: a thread for each call, taken from its pool.

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
using grpc::ServerContext;
using grpc::Status;

// A stream that answers questions. Its own thread reads; whoever asks writes.
class FileStream {
 public:
  using Stream = grpc::ServerReaderWriter<::rpc::CanAccessFile, ::rpc::CanAccessFile>;

  explicit FileStream(Stream& stream) : stream_(stream) {
    *question_.mutable_request() = MakeRequest<::rpc::CanAccessFile::Request>();
  }

  void Ask(const ProfileId& key, int count) {
    const std::lock_guard lock(mutex_);
    *question_.mutable_profile_id() = key;
    for (int i = 0; i < count; ++i) {
      question_.set_call_id(++last_call_id_);
      stream_.Write(question_);
    }
  }

 private:
  std::mutex mutex_;
  Stream& stream_;
  ::rpc::CanAccessFile question_;
  std::int64_t last_call_id_ = 0;
};

class EchoHost final : public ::rpc::Profile::Service {
 private:
  using EventStream = grpc::ServerReaderWriter<::rpc::NetworkChanged, ::rpc::EventSubscription>;

  Status Name(ServerContext* /*context*/, const ProfileId* request,
              StringValue* response) override {
    response->set_value(request->value());
    return Status::OK;
  }

  Status Path(ServerContext* /*context*/, const ProfileId* request,
              StringValue* response) override {
    const auto event = MakeEvent<::rpc::NetworkChanged>(request->value());
    const std::lock_guard lock(mutex_);
    for (EventStream* subscriber : subscribers_) subscriber->Write(event);
    response->set_value(std::to_string(subscribers_.size()));
    return Status::OK;
  }

  Status IsDefault(ServerContext* /*context*/, const ProfileId* request,
                   BoolValue* /*response*/) override {
    const std::lock_guard lock(mutex_);
    const auto stream = file_streams_.find(request->value());
    if (stream == file_streams_.end()) return {grpc::StatusCode::NOT_FOUND, "Nobody answers"};
    stream->second->Ask(*request, OpenQuestions(request->value()));
    return Status::OK;
  }

  Status WhenNetworkChanged(ServerContext* /*context*/, EventStream* stream) override {
    stream->SendInitialMetadata();
    ::rpc::EventSubscription subscription;
    while (stream->Read(&subscription)) {
      const std::lock_guard lock(mutex_);
      subscribers_.insert(stream);
    }
    const std::lock_guard lock(mutex_);
    subscribers_.erase(stream);
    return Status::OK;
  }

  Status OnCanAccessFile(ServerContext* /*context*/, FileStream::Stream* stream) override {
    stream->SendInitialMetadata();
    FileStream file_stream(*stream);
    ::rpc::CanAccessFile message;
    std::string key;
    while (stream->Read(&message)) {
      if (message.kind_case() == ::rpc::CanAccessFile::kResponse) {
        file_stream.Ask(message.profile_id(), 1);
        continue;
      }
      key = message.profile_id().value();
      const std::lock_guard lock(mutex_);
      file_streams_[key] = &file_stream;
    }
    const std::lock_guard lock(mutex_);
    file_streams_.erase(key);
    return Status::OK;
  }

  std::mutex mutex_;
  std::set<EventStream*> subscribers_;
  std::map<std::string, FileStream*> file_streams_;
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
