// Derives from three skeletons, serves and calls them, with what is installed and nothing else.

#include <cstdio>
#include <string>
#include <thread>

#include "core/client/client.h"
#include "core/common/rpc/testing/recording_channel.h"
#include "core/server/rpc_server.h"
#include "notes/notes.client.h"
#include "notes/notes.rpc.h"
#include "rpc/host/browser_host.client.h"
#include "rpc/host/browser_host.rpc.h"
#include "rpc/profile/profile.client.h"
#include "rpc/profile/profile.rpc.h"

namespace {

class ProfileHost : public rpc::ProfileRpc {
 public:
  void Name(google::protobuf::RpcController* /*controller*/, const ProfileId* request,
            google::protobuf::StringValue* response, google::protobuf::Closure* done) override {
    response->set_value("profile " + request->value());
    done->Run();
  }
};

class BrowserHost : public rpc::BrowserHostRpc {
 public:
  void ListProfiles(google::protobuf::RpcController* /*controller*/,
                    const google::protobuf::Empty* /*request*/, rpc::ProfileList* response,
                    google::protobuf::Closure* done) override {
    response->add_profiles()->set_name("one");
    done->Run();
  }
};

class NotesHost : public notes::NotesRpc {
 public:
  void Read(google::protobuf::RpcController* /*controller*/, const ProfileId* request,
            notes::Note* response, google::protobuf::Closure* done) override {
    *response->mutable_profile_id() = *request;
    response->set_text("remember");
    done->Run();
  }
};

bool CallOverASocket(ProfileHost& profiles, BrowserHost& browsers, NotesHost& notes) {
  varnic::RpcServer server;
  server.AddService(profiles);
  server.AddService(browsers);
  server.AddService(notes);
  const auto address = server.Listen("127.0.0.1:0");
  if (!address.ok()) return false;
  std::thread thread([&server] { server.Run(); });

  varnic::net::EventLoop loop;
  varnic::Client client(loop, *address);
  ProfileId profile;
  profile.set_value("one");
  const auto name = rpc::ProfileClient(client).NameAndWait(profile, absl::Seconds(30));
  const auto list = rpc::BrowserHostClient(client).ListProfilesAndWait({}, absl::Seconds(30));
  const auto note = notes::NotesClient(client).ReadAndWait(profile, absl::Seconds(30));
  server.Post([&server] { server.Stop(); });
  thread.join();
  return name.ok() && name->value() == "profile one" && list.ok() && list->profiles_size() == 1 &&
         note.ok() && note->profile_id().value() == "one" && note->text() == "remember";
}

bool OpenAStream(ProfileHost& host) {
  varnic::testing::RecordingChannel channel;
  varnic::AbstractStream* stream =
      host.OpenStream(rpc::ProfileRpc::descriptor()->method(9), channel.Open());
  stream->OnCompleted();
  delete stream;
  return channel.completions() == 1;
}

}  // namespace

int main() {
  ProfileHost profiles;
  BrowserHost browsers;
  NotesHost notes;
  const bool passed = CallOverASocket(profiles, browsers, notes) && OpenAStream(profiles);
  std::puts(passed ? "passed" : "failed");
  return passed ? 0 : 1;
}
