#ifndef CORE_HOST_ANSWERED_REPLY_H_
#define CORE_HOST_ANSWERED_REPLY_H_

#include <memory>
#include <utility>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "core/host/profiles.h"

namespace varnic::host {

// `reply` for callbacks that may be dropped, as by net::Lifetime: when the last copy goes and none
// has been called, it answers with UNAVAILABLE. Later calls do nothing. RPC thread only.
template <class T>
Reply<T> AnsweredReply(Reply<T> reply) {
  class Holder {
   public:
    explicit Holder(Reply<T> held) : reply_(std::move(held)) {}
    ~Holder() { Answer(absl::UnavailableError("the host is shutting down")); }
    void Answer(absl::StatusOr<T> value) {
      const Reply<T> answer = std::exchange(reply_, nullptr);
      if (answer != nullptr) answer(std::move(value));
    }

   private:
    Reply<T> reply_;
  };
  return [holder = std::make_shared<Holder>(std::move(reply))](absl::StatusOr<T> value) {
    holder->Answer(std::move(value));
  };
}

}  // namespace varnic::host

#endif  // CORE_HOST_ANSWERED_REPLY_H_
