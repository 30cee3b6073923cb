#include "core/server/reflection/reflection_stream.h"

#include <cstddef>
#include <set>
#include <utility>
#include <vector>

#include "absl/strings/str_cat.h"
#include "core/net/frame_message.h"
#include "varnic/builtin/grpc/reflection/v1/reflection.pb.h"

namespace varnic {
namespace {

constexpr std::size_t kMaxRequestBytes = 4 << 10;
constexpr std::size_t kMaxWaiting = 1024;
constexpr std::size_t kMaxWaitingBytes = 256 << 10;

}  // namespace

ReflectionStream::ReflectionStream(const DescriptorIndex& index, net::GrpcServerCall& call,
                                   Owner& owner)
    : index_(index), call_(call), owner_(owner) {
  call_.Accept(*this);
  call_.SendHeaders();
}

void ReflectionStream::OnMessage(std::string_view message) {
  if (message.size() > kMaxRequestBytes) {
    return Finish(absl::ResourceExhaustedError(
        absl::StrCat("A request is longer than ", kMaxRequestBytes, " bytes")));
  }
  if (waiting_.size() == kMaxWaiting || waiting_bytes_ + message.size() > kMaxWaitingBytes) {
    // A status would wait behind what the client does not read.
    call_.Reset(net::Http2Error::kEnhanceYourCalm);
    return owner_.OnStreamEnded(*this);
  }
  waiting_.emplace_back(message);
  waiting_bytes_ += message.size();
  AnswerWaiting();
}

void ReflectionStream::OnHalfClose() {
  half_closed_ = true;
  AnswerWaiting();
}

void ReflectionStream::OnRoom() {
  AnswerWaiting();
}

void ReflectionStream::AnswerWaiting() {
  while (!waiting_.empty() && call_.HasRoom()) {
    const std::string message = std::move(waiting_.front());
    waiting_.pop_front();
    waiting_bytes_ -= message.size();
    if (!Answer(message)) {
      return Finish(absl::InvalidArgumentError(
          absl::StrCat("A request is not a serialised ", Request::descriptor()->full_name())));
    }
  }
  if (half_closed_ && waiting_.empty()) Finish(absl::OkStatus());
}

bool ReflectionStream::Answer(const std::string& message) {
  Request request;
  if (!request.ParseFromString(message)) return false;
  Response response;
  response.set_valid_host(request.host());
  const absl::Status status = FillIn(request, response);
  *response.mutable_original_request() = std::move(request);
  if (!status.ok()) {
    response.mutable_error_response()->set_error_code(static_cast<int>(status.code()));
    response.mutable_error_response()->set_error_message(std::string(status.message()));
  }
  call_.Send(net::FrameMessage(response));
  return true;
}

absl::Status ReflectionStream::FillIn(const Request& request, Response& response) {
  switch (request.message_request_case()) {
    case Request::kFileByFilename:
      return AddFiles(index_.FindFile(request.file_by_filename()), response);
    case Request::kFileContainingSymbol:
      return AddFiles(index_.FindFileOfSymbol(request.file_containing_symbol()), response);
    case Request::kFileContainingExtension: {
      const auto& extension = request.file_containing_extension();
      return AddFiles(
          index_.FindFileOfExtension(extension.containing_type(), extension.extension_number()),
          response);
    }
    case Request::kAllExtensionNumbersOfType: {
      const std::string& type = request.all_extension_numbers_of_type();
      const absl::StatusOr<std::set<int>> numbers = index_.ExtensionNumbers(type);
      if (!numbers.ok()) return numbers.status();
      auto& answer = *response.mutable_all_extension_numbers_response();
      answer.set_base_type_name(type);
      for (const int number : *numbers) answer.add_extension_number(number);
      return absl::OkStatus();
    }
    case Request::kListServices: {
      auto& answer = *response.mutable_list_services_response();
      for (const std::string& name : index_.services()) answer.add_service()->set_name(name);
      return absl::OkStatus();
    }
    case Request::MESSAGE_REQUEST_NOT_SET:
      break;
  }
  return absl::InvalidArgumentError("The request asks for nothing that is known here");
}

// The file that was asked for comes first, and always.
absl::Status ReflectionStream::AddFiles(const absl::StatusOr<DescriptorIndex::File>& file,
                                        Response& response) {
  if (!file.ok()) return file.status();
  sent_.insert(*file);
  std::vector<DescriptorIndex::File> files = {*file};
  for (std::size_t next = 0; next < files.size(); ++next) {
    const google::protobuf::FileDescriptor& current = *files[next];
    response.mutable_file_descriptor_response()->add_file_descriptor_proto(
        index_.Serialized(current));
    for (int i = 0; i < current.dependency_count(); ++i) {
      if (sent_.insert(current.dependency(i)).second) files.push_back(current.dependency(i));
    }
  }
  return absl::OkStatus();
}

void ReflectionStream::Finish(const absl::Status& status) {
  call_.Finish(status);
  owner_.OnStreamEnded(*this);
}

}  // namespace varnic
