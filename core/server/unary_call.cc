#include "core/server/unary_call.h"

#include <array>
#include <string>
#include <utility>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "core/common/rpc/fatal.h"
#include "core/net/frame_message.h"
#include "core/net/send_buffer.h"

namespace varnic {

void UnaryCall::Start(const ServiceTable::Method& method, net::GrpcServerCall& call,
                      std::shared_ptr<const net::Metadata> metadata, std::string role) {
  new UnaryCall(method, call, std::move(metadata), std::move(role));
}

UnaryCall::UnaryCall(const ServiceTable::Method& method, net::GrpcServerCall& call,
                     std::shared_ptr<const net::Metadata> metadata, std::string role)
    : method_(method),
      call_(&call),
      controller_(call.deadline(), call.peer(), std::move(role), std::move(metadata)) {
  call.Accept(*this);
}

UnaryCall::~UnaryCall() = default;

void UnaryCall::OnMessage(std::string_view message) {
  if (request_ != nullptr) {
    return Refuse(absl::UnimplementedError(absl::StrCat(
        "More than one request message for the unary method ", method_.descriptor->full_name())));
  }
  request_ = method_.requests.Take(method_.service->GetRequestPrototype(method_.descriptor));
  request_bytes_ = message.size();
  if (!request_->ParseFromArray(message.data(), static_cast<int>(message.size()))) {
    Refuse(absl::InternalError(absl::StrCat("The request is not a serialised ",
                                            method_.descriptor->input_type()->full_name())));
  }
}

void UnaryCall::OnHalfClose() {
  if (request_ == nullptr) {
    return Refuse(absl::UnimplementedError(
        absl::StrCat("No request message for the unary method ", method_.descriptor->full_name())));
  }
  response_ = method_.responses.Take(method_.service->GetResponsePrototype(method_.descriptor));
  called_ = true;
  // Deletes this, if the service answers at once.
  method_.service->CallMethod(method_.descriptor, &controller_, request_.get(), response_.get(),
                              this);
}

void UnaryCall::OnCancelled() {
  call_ = nullptr;
  if (called_) {
    controller_.Cancel();  // The closure is still to come; it may come now.
  } else {
    delete this;
  }
}

void UnaryCall::Run() {
  if (call_ != nullptr) {
    Answer();
    controller_.Complete();  // The closure that waits may still read the messages.
    GiveBack();
  }
  delete this;
}

void UnaryCall::Answer() {
  const absl::Status status = FinalStatus();
  if (!controller_.initial_metadata().empty()) call_->SendHeaders(controller_.initial_metadata());
  if (status.ok()) SendResponse();
  call_->Finish(status, controller_.trailing_metadata());
}

void UnaryCall::SendResponse() {
  std::array<char, net::SendBuffer::kSmall> buffer;
  const std::string_view small = net::FrameMessageIn(absl::MakeSpan(buffer), *response_);
  response_bytes_ = small.size();
  if (small.data() != nullptr) return call_->SendCopy(small);
  std::string framed = net::FrameMessage(*response_);
  response_bytes_ = framed.size();
  call_->Send(std::move(framed));
}

void UnaryCall::GiveBack() {
  method_.requests.Give(std::move(request_), request_bytes_, MessageStock::Filler::kParser);
  method_.responses.Give(std::move(response_), response_bytes_);
}

void UnaryCall::Refuse(const absl::Status& status) {
  call_->Finish(status);
  delete this;
}

// The skeleton fails a method that the host does not serve with a text and no code: it knows only
// protobuf's controller. The code that gRPC has for it is given here.
absl::Status UnaryCall::FinalStatus() const {
  const absl::Status& status = controller_.status();
  if (status.code() == absl::StatusCode::kUnknown &&
      status.message() ==
          absl::StrCat("Method ", method_.descriptor->name(), "() not implemented.")) {
    return absl::UnimplementedError(status.message());
  }
  return status;
}

}  // namespace varnic
