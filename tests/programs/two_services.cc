#include "tests/programs/two_services.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "absl/strings/str_cat.h"
#include "absl/time/time.h"
#include "core/common/rpc/stream/callback_caller.h"
#include "core/common/rpc/stream/callback_stream.h"
#include "core/common/rpc/stream/event_publisher.h"
#include "core/common/rpc/stream/event_stream.h"
#include "core/server/server_controller.h"
#include "download.rpc.h"
#include "rpc/profile/profile.rpc.h"

namespace varnic {
namespace {

using download::Progress;
using google::protobuf::Closure;
using google::protobuf::Empty;
using google::protobuf::RpcController;
using google::protobuf::StringValue;

constexpr absl::Duration kPatience = absl::Seconds(30);

std::function<void(const absl::Status&)> Fail(RpcController* controller, Closure* done) {
  return [controller, done](const absl::Status& status) {
    ServerController::From(controller).SetStatus(status);
    done->Run();
  };
}

template <class T>
std::size_t Subscribers(const ProfileId& profile) {
  const auto entry = EventStream<T>::stream_map_.find(&profile);
  return entry == EventStream<T>::stream_map_.end() ? 0 : entry->second.size();
}

template <class T>
std::size_t Answerers(const ProfileId& profile) {
  return CallbackStream<T>::stream_map_.count(&profile);
}

void Count(const char* what, std::size_t number, rpc::UserAgentMetadata& counts) {
  auto& count = *counts.add_brands();
  count.set_brand(what);
  count.set_version(absl::StrCat(number));
}

}  // namespace

class TwoServices::ProfileService : public rpc::ProfileRpc {
 public:
  explicit ProfileService(RpcServer& server) : server_(server), files_(server.scheduler()) {}

  void Name(RpcController* /*controller*/, const ProfileId* request, StringValue* response,
            Closure* done) override {
    rpc::NetworkChanged event;
    event.set_online(true);
    response->set_value(absl::StrCat(network_.Publish(*request, event)));
    done->Run();
  }

  void Path(RpcController* controller, const ProfileId* request, StringValue* response,
            Closure* done) override {
    rpc::CanAccessFile::Request question;
    question.set_path("/etc/motd");
    const auto on_response = [response, done](const rpc::CanAccessFile::Response& answer) {
      response->set_value(answer.allow() ? "allowed" : "refused");
      done->Run();
    };
    files_.Call(*request, question, on_response, Fail(controller, done), kPatience);
  }

  void GetUserAgentMetadata(RpcController* /*controller*/, const ProfileId* request,
                            rpc::UserAgentMetadata* response, Closure* done) override {
    Count("streams", server_.streams().open_streams(), *response);
    Count("network subscribers", Subscribers<rpc::NetworkChanged>(*request), *response);
    Count("progress subscribers", Subscribers<Progress>(*request), *response);
    Count("file answerers", Answerers<rpc::CanAccessFile>(*request), *response);
    Count("download answerers", Answerers<download::KeepDangerousFile>(*request), *response);
    done->Run();
  }

 private:
  RpcServer& server_;
  EventPublisher<rpc::NetworkChanged> network_;
  CallbackCaller<rpc::CanAccessFile> files_;
};

class TwoServices::DownloadService : public download::DownloadsRpc {
 public:
  explicit DownloadService(Scheduler& scheduler) : questions_(scheduler) {}

  void Start(RpcController* /*controller*/, const download::StartRequest* request,
             download::DownloadId* response, Closure* done) override {
    profiles_.push_back(request->profile_id());
    response->set_value(static_cast<std::int64_t>(profiles_.size()));
    Publish(*response, Progress::RUNNING);
    done->Run();
  }

  void Pause(RpcController* controller, const download::DownloadId* request, Empty* /*response*/,
             Closure* done) override {
    if (Exists(controller, *request)) Publish(*request, Progress::PAUSED);
    done->Run();
  }

  void Resume(RpcController* controller, const download::DownloadId* request, Empty* /*response*/,
              Closure* done) override {
    if (!Exists(controller, *request)) return done->Run();
    download::KeepDangerousFile::Request question;
    question.set_file_name("setup.exe");
    const auto on_response = [=,
                              id = *request](const download::KeepDangerousFile::Response& answer) {
      Publish(id, answer.keep() ? Progress::COMPLETE : Progress::DISCARDED);
      done->Run();
    };
    questions_.Call(ProfileOf(*request), question, on_response, Fail(controller, done), kPatience);
  }

 private:
  bool Exists(RpcController* controller, const download::DownloadId& id) const {
    if (id.value() > 0 && static_cast<std::size_t>(id.value()) <= profiles_.size()) return true;
    ServerController::From(controller).SetStatus(absl::NotFoundError("No such download"));
    return false;
  }

  const ProfileId& ProfileOf(const download::DownloadId& id) const {
    return profiles_[static_cast<std::size_t>(id.value()) - 1];
  }

  void Publish(const download::DownloadId& id, Progress::State state) {
    Progress progress;
    *progress.mutable_download_id() = id;
    progress.set_state(state);
    progress_.Publish(ProfileOf(id), progress);
  }

  std::vector<ProfileId> profiles_;  // Of the downloads, which count from one.
  EventPublisher<Progress> progress_;
  CallbackCaller<download::KeepDangerousFile> questions_;
};

TwoServices::TwoServices(RpcServer& server)
    : profiles_(std::make_unique<ProfileService>(server)),
      downloads_(std::make_unique<DownloadService>(server.scheduler())) {
  server.AddService(*profiles_);
  server.AddService(*downloads_);
}

TwoServices::~TwoServices() = default;

}  // namespace varnic
