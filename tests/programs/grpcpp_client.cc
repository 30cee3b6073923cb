// One unary call by a client that has nothing of ours but the proto file: grpc++ and the stub that
// its own plugin makes.
//   grpcpp_client TARGET METHOD REQUEST-AS-JSON
// prints {"code": <gRPC status>, "message": <its text>, "response": <as JSON>}.

#include <google/protobuf/util/json_util.h>
#include <grpcpp/grpcpp.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <string>

#include "nlohmann/json.hpp"
#include "rpc/profile/profile.grpc.pb.h"

namespace {

using rpc::Profile;
using Call = nlohmann::json (*)(Profile::Stub& stub, const std::string& request);

template <class Request, class Response,
          grpc::Status (Profile::Stub::*Method)(grpc::ClientContext*, const Request&, Response*)>
nlohmann::json CallMethod(Profile::Stub& stub, const std::string& request_json) {
  Request request;
  if (!google::protobuf::util::JsonStringToMessage(request_json, &request).ok()) {
    return {{"code", -1}, {"message", "bad request"}};
  }
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(30));
  Response response;
  const grpc::Status status = (stub.*Method)(&context, request, &response);
  std::string response_json;
  google::protobuf::util::MessageToJsonString(response, &response_json);
  return {{"code", status.error_code()},
          {"message", status.error_message()},
          {"response", nlohmann::json::parse(response_json, nullptr, false)}};
}

using google::protobuf::BoolValue;
using google::protobuf::Empty;
using google::protobuf::StringValue;

const std::map<std::string, Call>& Calls() {
  static const auto* calls = new std::map<std::string, Call>{
      {"Path", CallMethod<ProfileId, StringValue, &Profile::Stub::Path>},
      {"Name", CallMethod<ProfileId, StringValue, &Profile::Stub::Name>},
      {"IsIncognito", CallMethod<ProfileId, BoolValue, &Profile::Stub::IsIncognito>},
      {"IsDefault", CallMethod<ProfileId, BoolValue, &Profile::Stub::IsDefault>},
      {"CreateBrowser", CallMethod<rpc::BrowserOptions, BrowserId, &Profile::Stub::CreateBrowser>},
      {"SetAcceptLanguage",
       CallMethod<rpc::SetAcceptLanguageRequest, Empty, &Profile::Stub::SetAcceptLanguage>},
      {"GetAcceptLanguage", CallMethod<ProfileId, StringValue, &Profile::Stub::GetAcceptLanguage>},
      {"GetUserAgent", CallMethod<ProfileId, StringValue, &Profile::Stub::GetUserAgent>},
      {"GetUserAgentMetadata",
       CallMethod<ProfileId, rpc::UserAgentMetadata, &Profile::Stub::GetUserAgentMetadata>},
  };
  return *calls;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4 || Calls().count(argv[2]) == 0) {
    std::fprintf(stderr, "usage: grpcpp_client TARGET METHOD REQUEST-AS-JSON\n");
    return 2;
  }
  const auto stub =
      Profile::NewStub(grpc::CreateChannel(argv[1], grpc::InsecureChannelCredentials()));
  std::puts(Calls().at(argv[2])(*stub, argv[3]).dump().c_str());
  return 0;
}
