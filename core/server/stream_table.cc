#include "core/server/stream_table.h"

#include <utility>
#include <vector>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"
#include "core/common/rpc/fatal.h"

namespace varnic {

StreamTable::~StreamTable() {
  VARNIC_CHECK(streams_.empty());
}

void StreamTable::Open(const ServiceTable::Method& method, net::GrpcServerCall& call,
                       const net::GrpcRequestHead& head, std::string role) {
  const bool is_served =
      method.kind == StreamKind::kPlain ? method.plain_streams : method.kind != StreamKind::kNone;
  if (!is_served) {
    return call.Finish(absl::UnimplementedError(absl::StrCat(
        method.descriptor->full_name(), " is neither an event stream nor a callback stream")));
  }
  const StreamFraming framing = head.headers->Find(kFramingHeader) == kEnvelopeFraming
                                    ? StreamFraming::kEnvelope
                                    : StreamFraming::kTyped;
  ServerStream::Owner& owner = *this;
  auto stream = std::make_unique<ServerStream>(loop_, method, GuardOf(method), envelopes_, framing,
                                               limits_, call, std::move(role), owner);
  if (!stream->is_open()) return;
  const ServerStream* key = stream.get();
  streams_.emplace(key, std::move(stream));
}

void StreamTable::EndAll(const absl::Status& status) {
  // A stream may outlast this, if one of its operations is on the stack, and may take others with
  // it.
  std::vector<const ServerStream*> open;
  open.reserve(streams_.size());
  for (const auto& [key, stream] : streams_) open.push_back(key);
  for (const ServerStream* key : open) {
    const auto found = streams_.find(key);
    if (found != streams_.end()) found->second->End(status);
  }
}

StreamUsage StreamTable::Usage() const {
  StreamUsage usage;
  for (const auto& [key, stream] : streams_) {
    usage.subscriptions += stream->subscriptions();
    usage.waiting_messages += stream->outbound().messages();
    usage.waiting_bytes += stream->outbound().bytes();
  }
  return usage;
}

void StreamTable::OnStreamEnded(ServerStream& stream) {
  streams_.erase(&stream);
}

EnvelopeGuard* StreamTable::GuardOf(const ServiceTable::Method& method) {
  if (method.kind == StreamKind::kPlain) return nullptr;
  std::unique_ptr<EnvelopeGuard>& guard = guards_[method.descriptor];
  if (guard == nullptr) {
    // An event stream decodes what the method takes, a callback stream what it returns.
    const google::protobuf::Message& prototype =
        method.kind == StreamKind::kEvents
            ? method.service->GetRequestPrototype(method.descriptor)
            : method.service->GetResponsePrototype(method.descriptor);
    guard = std::make_unique<EnvelopeGuard>(*method.descriptor, prototype);
  }
  return guard.get();
}

}  // namespace varnic
