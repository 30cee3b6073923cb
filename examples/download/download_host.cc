// A host that serves download.proto: download_host ADDRESS FOLDER
//
// In the place of a network it copies files into FOLDER, a chunk at a time. Everything runs on the
// thread of server.Run(); what blocks for long belongs on another, and returns by server.Post().

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>

#include "absl/time/clock.h"
#include "core/common/rpc/stream/callback_caller.h"
#include "core/common/rpc/stream/event_publisher.h"
#include "core/server/rpc_server.h"
#include "download.rpc.h"

using download::KeepDangerousFile;
using download::Progress;
using google::protobuf::Closure;
using google::protobuf::RpcController;
using std::filesystem::path;

struct Download {
  path target;
  std::ifstream from;
  std::ofstream to;  // Open while the download is running or paused.
  Progress progress;
  std::unique_ptr<varnic::Scheduler::Timer> next_chunk;
};

class DownloadHost : public download::DownloadsRpc {
 public:
  DownloadHost(varnic::RpcServer& server, path folder)
      : scheduler_(server.scheduler()), folder_(std::move(folder)), questions_(scheduler_) {}

  void Start(RpcController* controller, const download::StartRequest* request,
             download::DownloadId* response, Closure* done) override {
    const path source = request->source(), target = folder_ / source.filename();
    std::error_code error;
    if (is_regular_file(source, error) && !equivalent(source, target, error)) {
      response->set_value(++last_id_);
      Download& download = downloads_[last_id_];
      download.target = target;
      download.from.open(source, std::ios::binary);
      download.to.open(target, std::ios::binary);
      *download.progress.mutable_profile_id() = request->profile_id();
      *download.progress.mutable_download_id() = *response;
      CopySoon(download);
    } else {
      controller->SetFailed("There is no such file to fetch: " + request->source());
    }
    done->Run();  // Exactly once; here, or later on the server's thread.
  }

  void Pause(RpcController* controller, const download::DownloadId* request,
             google::protobuf::Empty* /*response*/, Closure* done) override {
    if (Download* download = FindOpen(controller, *request)) {
      download->next_chunk = nullptr;
      Publish(*download, Progress::PAUSED);
    }
    done->Run();
  }

  void Resume(RpcController* controller, const download::DownloadId* request,
              google::protobuf::Empty* /*response*/, Closure* done) override {
    if (Download* download = FindOpen(controller, *request)) CopySoon(*download);
    done->Run();
  }

 private:
  // Null, with a failed call, if there is none.
  Download* FindOpen(RpcController* controller, const download::DownloadId& id) {
    const auto found = downloads_.find(id.value());
    if (found != downloads_.end() && found->second.to.is_open()) return &found->second;
    controller->SetFailed("Nothing is downloaded as " + std::to_string(id.value()));
    return nullptr;
  }

  void CopySoon(Download& download) {
    Publish(download, Progress::RUNNING);
    download.next_chunk = scheduler_.RunAfter(absl::Milliseconds(10), [&] { CopyChunk(download); });
  }

  void CopyChunk(Download& download) {
    std::string chunk(64 << 10, '\0');
    download.from.read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
    const std::streamsize size = download.from.gcount();
    download.to.write(chunk.data(), size);
    download.progress.set_received_bytes(download.progress.received_bytes() + size);
    if (download.from && download.to) return CopySoon(download);
    download.to.close();
    if (!download.from.eof() || !download.to) return End(download, Progress::FAILED);
    if (download.target.extension() != ".exe") return End(download, Progress::COMPLETE);
    KeepDangerousFile::Request question;
    question.set_file_name(download.target.filename().string());
    const auto end = [&](bool keep) {
      End(download, keep ? Progress::COMPLETE : Progress::DISCARDED);
    };
    questions_.Call(
        download.progress.profile_id(), question, [end](const auto& answer) { end(answer.keep()); },
        [end](const auto& /*status*/) { end(false); }, absl::Minutes(1));
  }

  void End(Download& download, Progress::State state) {
    if (std::error_code error; state != Progress::COMPLETE) remove(download.target, error);
    Publish(download, state);
    downloads_.erase(download.progress.download_id().value());
  }

  void Publish(Download& download, Progress::State state) {
    download.progress.set_state(state);
    progress_.Publish(download.progress.profile_id(), download.progress);
  }

  varnic::Scheduler& scheduler_;
  const path folder_;
  int64_t last_id_ =
      absl::ToUnixMicros(absl::Now());  // Those of an earlier host are not used again.
  std::map<int64_t, Download> downloads_;
  varnic::EventPublisher<Progress> progress_;
  varnic::CallbackCaller<KeepDangerousFile> questions_;  // Its callbacks use the rest.
};

int main(int argc, char** argv) {
  if (argc != 3) return std::fputs("Usage: download_host ADDRESS FOLDER\n", stderr), 2;
  varnic::RpcServer server;
  DownloadHost host(server, argv[2]);
  server.AddService(host);
  const auto address = server.Listen(argv[1]);
  if (!address.ok()) return std::fprintf(stderr, "%s\n", address.status().ToString().c_str()), 1;
  server.Run();
}
