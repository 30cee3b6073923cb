#ifndef CORE_CLIENT_TESTING_STREAM_TEST_H_
#define CORE_CLIENT_TESTING_STREAM_TEST_H_

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "absl/strings/str_cat.h"
#include "core/client/client.h"
#include "core/client/stream_listeners.h"
#include "core/client/testing/scripted_server.h"
#include "core/client/testing/served_profile.h"
#include "core/net/testing/fake_clock.h"

namespace varnic::testing {

// A client whose time the test holds and whose delays have no jitter; and a server, while there is
// one.
class StreamTest : public ::testing::Test {
 protected:
  static ClientOptions WithoutJitter() {
    ClientOptions options;
    options.backoff.jitter = 0;
    return options;
  }

  static const google::protobuf::MethodDescriptor& Method(const std::string& name) {
    return *rpc::ProfileRpc::descriptor()->FindMethodByName(name);
  }

  // Everything that can happen without time going by, has.
  void Settle() {
    for (int quiet_turns = 0; quiet_turns < 3;) {
      const std::size_t ran = loop_.RunPending() + (served_ == nullptr ? 0 : served_->Turn());
      quiet_turns = ran > 0 ? 0 : quiet_turns + 1;
    }
  }
  void Advance(absl::Duration duration) {
    clock_.Advance(duration);
    Settle();
  }
  void Serve(const ServerOptions& options = {}) {
    served_ = nullptr;  // An address has one server.
    served_ = std::make_unique<ServedProfile>(address_, options);
  }

  // "up", "down in 1s" and "end STATUS" in `heard_`; then `then` runs, given the first word.
  StreamListeners Listeners(std::function<void(const std::string&)> then = nullptr) {
    const auto hear = [this, then = std::move(then)](const std::string& what,
                                                     const std::string& more) {
      heard_.push_back(what + more);
      if (then != nullptr) then(what);
    };
    StreamListeners listeners;
    listeners.on_up = [hear] { hear("up", ""); };
    listeners.on_down = [this, hear](const absl::Status& why, absl::Duration retry_in) {
      why_ = why;
      hear("down", absl::StrCat(" in ", absl::FormatDuration(retry_in)));
    };
    listeners.on_end = [hear](const absl::Status& status) { hear("end", " " + status.ToString()); };
    return listeners;
  }

  net::testing::FakeClock clock_;
  const std::string address_ = NewClientTestAddress();
  std::vector<std::string> heard_;
  absl::Status why_;  // Of the last "down".
  net::EventLoop loop_;
  std::unique_ptr<ServedProfile> served_;
  std::unique_ptr<Client> client_ = std::make_unique<Client>(loop_, address_, WithoutJitter());
};

}  // namespace varnic::testing

#endif  // CORE_CLIENT_TESTING_STREAM_TEST_H_
