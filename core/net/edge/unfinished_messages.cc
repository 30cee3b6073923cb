#include "core/net/edge/unfinished_messages.h"

#include <utility>

#include "absl/strings/str_cat.h"

namespace varnic::net {

absl::Status UnfinishedMessages::Share::Set(std::size_t bytes) {
  const std::size_t before = std::exchange(bytes_, bytes);
  all_.bytes_ = all_.bytes_ - before + bytes;
  if (bytes <= before || all_.bytes_ <= all_.max_bytes_) return absl::OkStatus();
  return absl::ResourceExhaustedError(absl::StrCat(
      "More than ", all_.max_bytes_, " bytes of unfinished messages on one connection"));
}

void UnfinishedMessages::Share::Clear() {
  all_.bytes_ -= std::exchange(bytes_, 0);
}

}  // namespace varnic::net
