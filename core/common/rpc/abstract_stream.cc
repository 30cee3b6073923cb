#include "core/common/rpc/abstract_stream.h"

#include <algorithm>
#include <unordered_set>
#include <utility>
#include <vector>

namespace varnic {
namespace {

struct Streams {
  std::unordered_set<const AbstractStream*> constructed;
  std::vector<AbstractStream::EndObserver*> observers;
};

// Never destroyed: a stream may outlive the statics.
Streams& AllStreams() {
  static Streams& streams = *new Streams;
  return streams;
}

}  // namespace

AbstractStream::AbstractStream(StreamChannel channel) : channel_(std::move(channel)) {
  AllStreams().constructed.insert(this);
}
AbstractStream::~AbstractStream() {
  MarkEnded();
  AllStreams().constructed.erase(this);
}

void AbstractStream::Complete() {
  MarkEnded();
  channel_.Complete();
}

bool AbstractStream::IsLive(const AbstractStream* stream) {
  return AllStreams().constructed.count(stream) != 0 && !stream->ended_;
}

void AbstractStream::MarkEnded() {
  if (std::exchange(ended_, true)) return;
  for (EndObserver* observer : AllStreams().observers) observer->OnStreamEnded(this);
}

AbstractStream::EndObserver::EndObserver() {
  AllStreams().observers.push_back(this);
}
AbstractStream::EndObserver::~EndObserver() {
  auto& observers = AllStreams().observers;
  observers.erase(std::find(observers.begin(), observers.end(), this));
}

}  // namespace varnic
