// A client of download.proto: download_client ADDRESS PROFILE FILE yes|no
// Downloads FILE for PROFILE, with a pause. The last argument answers whether to keep the file.

#include <cstdio>
#include <string>

#include "core/client/client.h"
#include "download.client.h"

using download::Progress;

int main(int argc, char** argv) {
  if (argc != 5)
    return std::fputs("Usage: download_client ADDRESS PROFILE FILE yes|no\n", stderr), 2;
  varnic::net::EventLoop loop;
  varnic::Client client(loop, argv[1]);
  download::DownloadsClient downloads(client);
  download::StartRequest request;
  request.mutable_profile_id()->set_value(argv[2]);
  request.set_source(argv[3]);
  const std::string answer = argv[4];
  const auto give_up = [&](const absl::Status& why) {
    std::fprintf(stderr, "%s\n", why.ToString().c_str());
    loop.Stop();
  };
  varnic::StreamListeners listeners;
  listeners.on_end = give_up;  // Not after a loss, from which streams come back by themselves.

  const auto on_question = [&](varnic::CallbackQuestion<download::KeepDangerousFile> question) {
    std::printf("Keep %s? %s\n", question.request().file_name().c_str(), answer.c_str());
    download::KeepDangerousFile::Response response;
    response.set_keep(answer == "yes");
    question.Answer(response);  // Or later: a question can be moved and kept.
  };
  const auto questions = downloads.OnKeepDangerousFile(on_question, listeners);
  questions->Subscribe(request.profile_id());

  download::DownloadId id;  // Of our own download; we hear of all that the profile has.
  auto state = Progress::STATE_UNSPECIFIED;
  const auto on_progress = [&](const Progress& progress) {
    if (progress.download_id().value() != id.value() || progress.state() == state) return;
    state = progress.state();
    std::printf("%s at %lld bytes\n", Progress::State_Name(state).c_str(),
                static_cast<long long>(progress.received_bytes()));
    if (state == Progress::PAUSED) downloads.Resume(id, absl::Seconds(10), [](const auto&) {});
    if (state >= Progress::COMPLETE) loop.Stop();
  };
  const auto start = [&] {
    downloads.Start(request, absl::Seconds(10), [&](const auto& started) {
      if (!started.ok()) return give_up(started.status());
      state = Progress::STATE_UNSPECIFIED;
      downloads.Pause(id = *started, absl::Seconds(10), [](const auto&) {});
    });
  };
  listeners.on_up = [&] {  // Also after a loss; the download then goes on, if the host knows it.
    if (id.value() == 0) return start();
    downloads.Resume(id, absl::Seconds(10), [&](const auto& resumed) {
      if (absl::IsUnknown(resumed.status())) start();
    });
  };
  const auto events = downloads.WhenProgressed(on_progress, listeners);
  events->Subscribe(request.profile_id());
  loop.Run();
  return state == Progress::COMPLETE ? 0 : 1;
}
