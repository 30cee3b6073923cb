// A client that has nothing of ours but the proto files: grpc++, and the stubs that its own plugin
// makes. Does what lines on its standard input say; foreign.py has the protocol.

#include <grpcpp/generic/generic_stub.h>
#include <grpcpp/grpcpp.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>

#include "absl/strings/escaping.h"
#include "interop/test.grpc.pb.h"
#include "nlohmann/json.hpp"
#include "rpc/profile/profile.grpc.pb.h"

namespace {

using nlohmann::json;
using ProfileAsync = rpc::Profile::StubInterface::async_interface;
using TestAsync = grpc::testing::TestService::StubInterface::async_interface;
using UnimplementedAsync = grpc::testing::UnimplementedService::StubInterface::async_interface;

// From gRPC's threads and from main().
void PrintLine(const json& line) {
  static std::mutex mutex;
  const std::lock_guard<std::mutex> lock(mutex);
  std::puts(line.dump().c_str());
  std::fflush(stdout);
}

bool IsBinary(const std::string& key) {
  return key.size() > 4 && key.compare(key.size() - 4, 4, "-bin") == 0;
}

std::string EncodeBase64(const std::string& bytes) {
  return absl::Base64Escape(bytes);
}
std::string DecodeBase64(const std::string& text) {
  std::string bytes;
  absl::Base64Unescape(text, &bytes);
  return bytes;
}

json ToJson(const std::multimap<grpc::string_ref, grpc::string_ref>& metadata) {
  json list = json::array();
  for (const auto& [key_ref, value_ref] : metadata) {
    const std::string key(key_ref.data(), key_ref.size());
    const std::string value(value_ref.data(), value_ref.size());
    list.push_back({key, IsBinary(key) ? EncodeBase64(value) : value});
  }
  return list;
}

// Messages are the stubs' own types, or bytes as they are.
bool Parse(const std::string& bytes, google::protobuf::Message& message) {
  return message.ParseFromString(bytes);
}
bool Parse(const std::string& bytes, grpc::ByteBuffer& message) {
  const grpc::Slice slice(bytes);
  message = grpc::ByteBuffer(&slice, 1);
  return true;
}
std::string Serialise(const google::protobuf::Message& message) {
  return message.SerializeAsString();
}
std::string Serialise(const grpc::ByteBuffer& message) {
  grpc::Slice slice;
  message.DumpToSingleSlice(&slice);
  return std::string(reinterpret_cast<const char*>(slice.begin()), slice.size());
}

// One call, from its opening to the line that has its status.
class Call {
 public:
  explicit Call(const json& command) : id_(command.at("call")) {
    const std::chrono::duration<double> patience(command.at("seconds").get<double>());
    context_.set_deadline(
        std::chrono::system_clock::now() +
        std::chrono::duration_cast<std::chrono::system_clock::duration>(patience));
    for (const json& entry : command.at("metadata")) {
      const std::string key = entry.at(0);
      const std::string value = entry.at(1);
      context_.AddMetadata(key, IsBinary(key) ? DecodeBase64(value) : value);
    }
  }
  virtual ~Call() = default;

  virtual void Send(const std::string& bytes) = 0;
  virtual void HalfClose() = 0;
  virtual void StartReading() = 0;
  void Cancel() { context_.TryCancel(); }

 protected:
  void PrintHeaders() {
    PrintLine({{"call", id_}, {"metadata", ToJson(context_.GetServerInitialMetadata())}});
  }
  void PrintMessage(const std::string& bytes) {
    PrintLine({{"call", id_}, {"message", EncodeBase64(bytes)}});
  }
  void PrintEnd(const grpc::Status& status) {
    PrintLine({{"call", id_},
               {"code", status.error_code()},
               {"text", status.error_message()},
               {"metadata", ToJson(context_.GetServerTrailingMetadata())}});
  }

  const int id_;
  grpc::ClientContext context_;
};

template <class Request, class Response>
class UnaryCall final : public Call {
 public:
  using Start = std::function<void(grpc::ClientContext*, const Request*, Response*,
                                   std::function<void(grpc::Status)>)>;

  UnaryCall(const json& command, Start start) : Call(command), start_(std::move(start)) {}

  void Send(const std::string& bytes) override {
    Parse(bytes, request_);
    start_(&context_, &request_, &response_, [this](const grpc::Status& status) {
      PrintHeaders();
      if (status.ok()) PrintMessage(Serialise(response_));
      PrintEnd(status);
    });
  }
  void HalfClose() override {}
  void StartReading() override {}

 private:
  const Start start_;
  Request request_;
  Response response_;
};

template <class Request, class Response>
class StreamCall final : public Call, private grpc::ClientBidiReactor<Request, Response> {
 public:
  using Reactor = grpc::ClientBidiReactor<Request, Response>;
  using Start = std::function<void(grpc::ClientContext*, Reactor*)>;

  StreamCall(const json& command, const Start& start) : Call(command) {
    start(&context_, this);
    Reactor::AddHold();  // For what main() does.
    if (command.at("read").get<bool>()) Reactor::StartRead(&incoming_);
    Reactor::StartCall();
  }

  void Send(const std::string& bytes) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (ended_) return;
    Parse(bytes, outgoing_.emplace_back());
    if (outgoing_.size() == 1) Reactor::StartWrite(&outgoing_.front());
  }
  void HalfClose() override {
    const std::lock_guard<std::mutex> lock(mutex_);
    half_closed_ = true;
    if (!ended_ && outgoing_.empty()) Reactor::StartWritesDone();
  }
  void StartReading() override { Reactor::StartRead(&incoming_); }

 private:
  void OnReadInitialMetadataDone(bool ok) override {
    if (ok) PrintHeaders();
  }
  void OnReadDone(bool ok) override {
    if (ok) {
      PrintMessage(Serialise(incoming_));
      return Reactor::StartRead(&incoming_);
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    ended_ = true;
    Reactor::RemoveHold();
  }
  void OnWriteDone(bool ok) override {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!ok || ended_) return;
    outgoing_.pop_front();
    if (!outgoing_.empty()) {
      Reactor::StartWrite(&outgoing_.front());
    } else if (half_closed_) {
      Reactor::StartWritesDone();
    }
  }
  void OnDone(const grpc::Status& status) override { PrintEnd(status); }

  Response incoming_;
  std::mutex mutex_;              // For what follows.
  std::deque<Request> outgoing_;  // The first one is being written.
  bool half_closed_ = false;
  bool ended_ = false;
};

// One connection, with every stub on it.
class Channel {
 public:
  explicit Channel(const json& command)
      : channel_(Connect(command)),
        profile_(channel_),
        test_(channel_),
        unimplemented_(channel_),
        generic_(channel_),
        stubs_(profile_.async(), test_.async(), unimplemented_.async()) {}

  template <class Async>
  Async* Stub() {
    return std::get<Async*>(stubs_);
  }
  grpc::GenericStub& generic() { return generic_; }

 private:
  static std::string File(const json& path) {
    std::ifstream file(path.get<std::string>(), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
  }
  static std::shared_ptr<grpc::Channel> Connect(const json& command) {
    grpc::ChannelArguments arguments;
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    for (const auto& [name, value] : command.at("options").items()) {
      arguments.SetInt(name, value.get<int>());
    }
    if (command.at("gzip").get<bool>()) arguments.SetCompressionAlgorithm(GRPC_COMPRESS_GZIP);
    auto credentials = grpc::InsecureChannelCredentials();
    if (!command.at("ca").is_null()) {
      grpc::SslCredentialsOptions options;
      options.pem_root_certs = File(command.at("ca"));
      if (!command.at("key").is_null()) {
        options.pem_private_key = File(command.at("key"));
        options.pem_cert_chain = File(command.at("certificate"));
      }
      credentials = grpc::SslCredentials(options);
    }
    return grpc::CreateCustomChannel(command.at("target").get<std::string>(), credentials,
                                     arguments);
  }

  const std::shared_ptr<grpc::Channel> channel_;
  rpc::Profile::Stub profile_;
  grpc::testing::TestService::Stub test_;
  grpc::testing::UnimplementedService::Stub unimplemented_;
  grpc::GenericStub generic_;
  const std::tuple<ProfileAsync*, TestAsync*, UnimplementedAsync*> stubs_;
};

using Open = std::function<std::unique_ptr<Call>(Channel& channel, const json& command)>;

template <class Async, class Request, class Response>
Open Unary(void (Async::*method)(grpc::ClientContext*, const Request*, Response*,
                                 std::function<void(grpc::Status)>)) {
  return [method](Channel& channel, const json& command) {
    Async* stub = channel.Stub<Async>();
    return std::make_unique<UnaryCall<Request, Response>>(
        command, [stub, method](grpc::ClientContext* context, const Request* request,
                                Response* response, std::function<void(grpc::Status)> on_done) {
          (stub->*method)(context, request, response, std::move(on_done));
        });
  };
}

template <class Async, class Request, class Response>
Open Stream(void (Async::*method)(grpc::ClientContext*,
                                  grpc::ClientBidiReactor<Request, Response>*)) {
  return [method](Channel& channel, const json& command) {
    Async* stub = channel.Stub<Async>();
    return std::make_unique<StreamCall<Request, Response>>(
        command, [stub, method](grpc::ClientContext* context,
                                grpc::ClientBidiReactor<Request, Response>* reactor) {
          (stub->*method)(context, reactor);
        });
  };
}

const std::map<std::string, Open>& Methods() {
  static const auto& methods = *new std::map<std::string, Open>{
      {"/rpc.Profile/Path", Unary(&ProfileAsync::Path)},
      {"/rpc.Profile/Name", Unary(&ProfileAsync::Name)},
      {"/rpc.Profile/IsIncognito", Unary(&ProfileAsync::IsIncognito)},
      {"/rpc.Profile/IsDefault", Unary(&ProfileAsync::IsDefault)},
      {"/rpc.Profile/CreateBrowser", Unary(&ProfileAsync::CreateBrowser)},
      {"/rpc.Profile/SetAcceptLanguage", Unary(&ProfileAsync::SetAcceptLanguage)},
      {"/rpc.Profile/GetAcceptLanguage", Unary(&ProfileAsync::GetAcceptLanguage)},
      {"/rpc.Profile/GetUserAgent", Unary(&ProfileAsync::GetUserAgent)},
      {"/rpc.Profile/GetUserAgentMetadata", Unary(&ProfileAsync::GetUserAgentMetadata)},
      {"/rpc.Profile/WhenNetworkChanged", Stream(&ProfileAsync::WhenNetworkChanged)},
      {"/rpc.Profile/OnCanAccessFile", Stream(&ProfileAsync::OnCanAccessFile)},
      {"/rpc.Profile/OnAuthenticate", Stream(&ProfileAsync::OnAuthenticate)},
      {"/grpc.testing.TestService/EmptyCall", Unary(&TestAsync::EmptyCall)},
      {"/grpc.testing.TestService/UnaryCall", Unary(&TestAsync::UnaryCall)},
      {"/grpc.testing.TestService/UnimplementedCall", Unary(&TestAsync::UnimplementedCall)},
      {"/grpc.testing.TestService/FullDuplexCall", Stream(&TestAsync::FullDuplexCall)},
      {"/grpc.testing.TestService/HalfDuplexCall", Stream(&TestAsync::HalfDuplexCall)},
      {"/grpc.testing.UnimplementedService/UnimplementedCall",
       Unary(&UnimplementedAsync::UnimplementedCall)},
  };
  return methods;
}

// A call of any method, known or not, with messages of the caller's own making.
std::unique_ptr<Call> OpenRaw(Channel& channel, const json& command) {
  grpc::GenericStub& stub = channel.generic();
  const std::string method = command.at("method");
  if (command.at("unary").get<bool>()) {
    return std::make_unique<UnaryCall<grpc::ByteBuffer, grpc::ByteBuffer>>(
        command,
        [&stub, method](grpc::ClientContext* context, const grpc::ByteBuffer* request,
                        grpc::ByteBuffer* response, std::function<void(grpc::Status)> on_done) {
          stub.UnaryCall(context, method, grpc::StubOptions(), request, response,
                         std::move(on_done));
        });
  }
  return std::make_unique<StreamCall<grpc::ByteBuffer, grpc::ByteBuffer>>(
      command,
      [&stub, method](grpc::ClientContext* context,
                      grpc::ClientBidiReactor<grpc::ByteBuffer, grpc::ByteBuffer>* reactor) {
        stub.PrepareBidiStreamingCall(context, method, grpc::StubOptions(), reactor);
      });
}

class Client {
 public:
  void Do(const json& command) {
    const std::string what = command.at("do");
    if (what == "connect") {
      channels_[command.at("channel")] = std::make_unique<Channel>(command);
    } else if (what == "close") {
      channels_.erase(command.at("channel").get<int>());
    } else if (what == "open") {
      Call* call = calls_[command.at("call")] = OpenCall(command).release();
      if (!command.at("first").is_null()) call->Send(DecodeBase64(command.at("first")));
    } else {
      Use(*calls_.at(command.at("call")), what, command);
    }
  }

 private:
  std::unique_ptr<Call> OpenCall(const json& command) {
    Channel& channel = *channels_.at(command.at("channel"));
    if (command.at("raw").get<bool>()) return OpenRaw(channel, command);
    return Methods().at(command.at("method"))(channel, command);
  }

  static void Use(Call& call, const std::string& what, const json& command) {
    if (what == "send") call.Send(DecodeBase64(command.at("message")));
    if (what == "half_close") call.HalfClose();
    if (what == "read") call.StartReading();
    if (what == "cancel") call.Cancel();
  }

  std::map<int, std::unique_ptr<Channel>> channels_;
  std::map<int, Call*> calls_;  // Never destroyed: gRPC may still use them.
};

}  // namespace

int main() {
  std::ios::sync_with_stdio(false);
  Client& client = *new Client;
  for (std::string line; std::getline(std::cin, line);) client.Do(json::parse(line));
  // Without the destructors: calls may be open.
  std::_Exit(0);
}
