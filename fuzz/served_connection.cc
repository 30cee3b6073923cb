#include "fuzz/served_connection.h"

#include <type_traits>
#include <utility>

#include "absl/time/time.h"
#include "core/common/rpc/fatal.h"
#include "core/common/rpc/stream/callback_stream.h"
#include "core/common/rpc/stream/event_stream.h"
#include "core/server/unary_call.h"

namespace varnic::fuzz {
namespace {

// What any client may be told: the greeting, and the error that ends a connection.
constexpr std::size_t kOutputAnyway = 4 << 10;
// What one frame of a client may make the server say: a status whose text quotes a long path.
constexpr std::size_t kOutputPerFrame = 20 << 10;
constexpr std::size_t kFrameHeader = 9;
// One event or question, or what becomes of them, on every stream.
constexpr std::size_t kOutputPerPush = 64 << 10;

constexpr std::size_t kMaxMessageBytes = 1 << 16;
constexpr char kShuttingDown[] = "The host is shutting down";

StreamLimits SmallLimits() {
  StreamLimits limits;
  // An event stream frees no message that it gets, so long runs allow few.
  limits.subscriptions = {/*max_subscriptions=*/4, /*max_messages=*/12};
  limits.outbound = {/*conflate_from_messages=*/2, /*max_messages=*/8, /*max_bytes=*/1 << 10};
  return limits;
}

ProfileId Id(const std::string& profile) {
  ProfileId id;
  id.set_value(profile);
  return id;
}

}  // namespace

void FuzzedProfile::Path(google::protobuf::RpcController* /*controller*/, const ProfileId* request,
                         google::protobuf::StringValue* response, google::protobuf::Closure* done) {
  response->set_value(request->value());
  done->Run();
}

void FuzzedProfile::Name(google::protobuf::RpcController* /*controller*/,
                         const ProfileId* /*request*/, google::protobuf::StringValue* /*response*/,
                         google::protobuf::Closure* done) {
  kept_.push_back(done);
}

void FuzzedProfile::AnswerKept() {
  for (google::protobuf::Closure* done : std::exchange(kept_, {})) done->Run();
}

ServedConnection::ServedConnection()
    : most_output_(kOutputAnyway),
      access_(std::make_unique<CallbackCaller<::rpc::CanAccessFile>>(scheduler_)),
      credentials_(std::make_unique<CallbackCaller<::rpc::Authenticate>>(scheduler_)),
      streams_(loop_, SmallLimits()) {
  services_.Add(profile_);
  ServeBuiltIns();
  net::GrpcServerOptions options;
  options.http2.max_concurrent_streams = 16;
  options.max_message_bytes = kMaxMessageBytes;
  net::GrpcServerConnection::Visitor& visitor = *this;
  connection_ =
      std::make_unique<net::GrpcServerConnection>(loop_, peer_.MakeStream(), options, visitor);
  loop_.RunPending();
}

// As RpcServer does.
void ServedConnection::ServeBuiltIns() {
  services_.Add(HealthService::Descriptor(), health_);
  health_.SetServing(profile_.GetDescriptor()->full_name(), serving_);
  for (const auto* descriptor : ReflectionService::Descriptors()) {
    services_.Add(*descriptor, reflection_);
    reflection_.AddService(*descriptor);
  }
  reflection_.AddService(*profile_.GetDescriptor());
}

ServedConnection::~ServedConnection() {
  peer_.Break();
  CheckNothingIsLeft();
}

void ServedConnection::Send(std::string_view bytes, std::size_t piece_size) {
  if (peer_.open()) most_output_ += (bytes.size() / kFrameHeader + 1) * kOutputPerFrame;
  peer_.SendInPieces(bytes, piece_size);
  loop_.RunPending();
}

std::string ServedConnection::Take() {
  std::string output = peer_.Take();
  output_ += output.size();
  VARNIC_CHECK(output_ <= most_output_);
  return output;
}

void ServedConnection::Publish(const std::string& profile) {
  most_output_ += kOutputPerPush;
  ::rpc::NetworkChanged event;
  event.set_online(true);
  publisher_.Publish(Id(profile), event);
  loop_.RunPending();
}

void ServedConnection::AskAccess(const std::string& profile) {
  Ask(*access_, profile);
}

void ServedConnection::AskCredentials(const std::string& profile) {
  Ask(*credentials_, profile);
}

void ServedConnection::Withdraw() {
  most_output_ += kOutputPerPush;
  (void)access_->Withdraw(last_access_);
  loop_.RunPending();
}

void ServedConnection::ToggleServing() {
  most_output_ += kOutputPerPush;
  serving_ = !serving_;
  health_.SetServing(profile_.GetDescriptor()->full_name(), serving_);
  loop_.RunPending();
}

void ServedConnection::Drain() {
  most_output_ += kOutputPerPush;
  draining_ = true;
  const absl::Status status = absl::UnavailableError(kShuttingDown);
  health_.EndAll(status);
  reflection_.EndAll(status);
  streams_.EndAll(status);
  if (connection_ != nullptr) connection_->SendGoaway();
  loop_.RunPending();
}

// A status for every stream, and whatever a limit makes the server say.
void ServedConnection::PassTime(absl::Duration duration) {
  most_output_ += kOutputPerPush;
  clock_.Advance(duration);
  loop_.RunPending();
}

template <class T>
void ServedConnection::Ask(CallbackCaller<T>& caller, const std::string& profile) {
  most_output_ += kOutputPerPush;
  ++questions_;
  const CallId id = caller.Call(
      Id(profile), {}, [this](const typename T::Response&) { ++ends_; },
      [this](const absl::Status& status) {
        VARNIC_CHECK(!status.ok());
        ++ends_;
      },
      absl::InfiniteDuration());
  if constexpr (std::is_same_v<T, ::rpc::CanAccessFile>) last_access_ = id;
  loop_.RunPending();
}

// As RpcServer does.
void ServedConnection::OnCall(net::GrpcServerCall& call, const net::GrpcRequestHead& head) {
  if (draining_) return call.Finish(absl::UnavailableError(kShuttingDown));
  const auto found = services_.Find(head.path);
  if (!found.ok()) return call.Finish(found.status());
  const ServiceTable::Method& method = **found;
  if (method.handler != nullptr) return method.handler->OnCall(*method.descriptor, call);
  if (method.is_stream()) return streams_.Open(method, call, head, /*role=*/"");
  UnaryCall::Start(method, call, call.RequestMetadata(head), /*role=*/"");
}

void ServedConnection::OnConnectionClosed(net::GrpcServerConnection& /*connection*/,
                                          const absl::Status& /*status*/) {
  connection_ = nullptr;
}

void ServedConnection::CheckNothingIsLeft() {
  VARNIC_CHECK(connection_ == nullptr && !peer_.open());
  VARNIC_CHECK(streams_.open_streams() == 0);
  loop_.RunPending();
  VARNIC_CHECK(EventStream<::rpc::NetworkChanged>::stream_map_.empty());
  VARNIC_CHECK(CallbackStream<::rpc::CanAccessFile>::stream_map_.empty());
  VARNIC_CHECK(CallbackStream<::rpc::Authenticate>::stream_map_.empty());
  VARNIC_CHECK(access_->open_calls() == 0 && credentials_->open_calls() == 0);
  VARNIC_CHECK(ends_ == questions_);
}

}  // namespace varnic::fuzz
