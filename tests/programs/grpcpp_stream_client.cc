// One stream of a client that has nothing of ours but the proto file: grpc++ and the stub that its
// own plugin makes.
//   grpcpp_stream_client TARGET PROFILE events|answer|fail|hold COUNT
// takes COUNT messages of the host, prints each as JSON in a line of its own, half-closes, and then
// prints {"code": <gRPC status>, "message": <its text>}. With "answer" it allows what is not below
// "/secret/"; with "fail" it says that it cannot answer; with "hold" it leaves questions open, and
// with them the stream, until the host ends it.

#include <google/protobuf/util/json_util.h>
#include <grpcpp/grpcpp.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>

#include "nlohmann/json.hpp"
#include "rpc/profile/profile.grpc.pb.h"

namespace {

using rpc::CanAccessFile;
using rpc::Profile;

void PrintLine(const std::string& line) {
  std::puts(line.c_str());
  std::fflush(stdout);
}

void Print(const google::protobuf::Message& message) {
  std::string json;
  google::protobuf::util::MessageToJsonString(message, &json);
  PrintLine(json);
}

void Print(const grpc::Status& status) {
  const nlohmann::json json = {{"code", status.error_code()}, {"message", status.error_message()}};
  PrintLine(json.dump());
}

void SetDeadline(grpc::ClientContext& context) {
  context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(60));
}

void TakeEvents(Profile::Stub& stub, const std::string& profile, int count) {
  grpc::ClientContext context;
  SetDeadline(context);
  const auto stream = stub.WhenNetworkChanged(&context);
  rpc::EventSubscription subscription;
  subscription.mutable_key()->set_value(profile);
  subscription.set_action(rpc::EventSubscription::SUBSCRIBE);
  stream->Write(subscription);

  rpc::NetworkChanged event;
  for (int i = 0; i < count && stream->Read(&event); ++i) Print(event);

  stream->WritesDone();
  Print(stream->Finish());
}

using Answer = std::function<void(const CanAccessFile::Request& question, CanAccessFile& answer)>;

void TakeQuestions(Profile::Stub& stub, const std::string& profile, int count,
                   const Answer& answer) {
  grpc::ClientContext context;
  SetDeadline(context);
  const auto stream = stub.OnCanAccessFile(&context);
  CanAccessFile control;
  control.mutable_profile_id()->set_value(profile);
  control.set_subscribe(true);
  stream->Write(control);

  CanAccessFile question;
  for (int i = 0; i < count && stream->Read(&question); ++i) {
    Print(question);
    CanAccessFile message;
    *message.mutable_profile_id() = question.profile_id();
    message.set_call_id(question.call_id());
    answer(question.request(), message);
    stream->Write(message);
  }

  stream->WritesDone();
  Print(stream->Finish());
}

void HoldQuestions(Profile::Stub& stub, const std::string& profile) {
  grpc::ClientContext context;
  SetDeadline(context);
  const auto stream = stub.OnCanAccessFile(&context);
  CanAccessFile control;
  control.mutable_profile_id()->set_value(profile);
  control.set_subscribe(true);
  stream->Write(control);

  CanAccessFile question;
  while (stream->Read(&question)) Print(question);

  Print(stream->Finish());
}

void Allow(const CanAccessFile::Request& question, CanAccessFile& answer) {
  answer.mutable_response()->set_allow(question.path().rfind("/secret/", 0) != 0);
}

void Fail(const CanAccessFile::Request& question, CanAccessFile& answer) {
  answer.set_error("cannot tell about " + question.path());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 5) {
    std::fprintf(stderr,
                 "usage: grpcpp_stream_client TARGET PROFILE events|answer|fail|hold COUNT\n");
    return 2;
  }
  const auto stub =
      Profile::NewStub(grpc::CreateChannel(argv[1], grpc::InsecureChannelCredentials()));
  const std::string profile = argv[2];
  const std::string what = argv[3];
  const int count = std::atoi(argv[4]);
  if (what == "events") TakeEvents(*stub, profile, count);
  if (what == "answer") TakeQuestions(*stub, profile, count, Allow);
  if (what == "fail") TakeQuestions(*stub, profile, count, Fail);
  if (what == "hold") HoldQuestions(*stub, profile);
  return 0;
}
