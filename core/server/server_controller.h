#ifndef CORE_SERVER_SERVER_CONTROLLER_H_
#define CORE_SERVER_SERVER_CONTROLLER_H_

#include <google/protobuf/service.h>

#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "absl/status/status.h"
#include "absl/time/time.h"
#include "core/net/metadata.h"
#include "core/net/peer.h"

namespace varnic {

// The controller that RpcServer hands to each unary call: how an override fails its call with any
// gRPC status, and how it learns that nobody waits for the answer any more. Every RpcController
// that a service gets from an RpcServer is one, so an override may ask for it with From().
//
// Owned by the call; valid until the call's completion closure has run. RPC thread only.
class ServerController final : public google::protobuf::RpcController {
 public:
  // Without a caller: for a call that came over no connection.
  explicit ServerController(absl::Time deadline = absl::InfiniteFuture(),
                            std::shared_ptr<const net::Peer> peer = nullptr, std::string role = "",
                            std::shared_ptr<const net::Metadata> metadata = nullptr);
  // A closure that waits for a cancellation runs now, at the latest.
  ~ServerController() override;

  // The controller of a call that an RpcServer made.
  static ServerController& From(google::protobuf::RpcController* controller) {
    return *static_cast<ServerController*>(controller);
  }

  // Fails the call with `status`; its closure must still be run. An OK status takes back an earlier
  // failure.
  void SetStatus(absl::Status status) { status_ = std::move(status); }
  const absl::Status& status() const { return status_; }

  // When the client stops waiting (its grpc-timeout).
  absl::Time deadline() const { return deadline_; }

  // Who is calling, as far as the system or a certificate vouches for it. Valid as long as the
  // controller, also when the connection has ended.
  const net::Peer& peer() const { return *peer_; }
  // The role in which the server's policy lets the peer make this call; empty without a policy.
  const std::string& role() const { return role_; }

  // What the client says about the call besides its request: its custom header fields, and its
  // user-agent.
  const net::Metadata& metadata() const { return *metadata_; }
  // What the answer says besides its response, ahead of it and behind it; reaches the client of a
  // failed call, too. A key that is added twice is sent twice. An error leaves out the entry alone:
  // see net::Metadata::Add() for what is allowed, and how much of it.
  [[nodiscard]] absl::Status AddInitialMetadata(std::string_view key, std::string_view value) {
    return initial_metadata_.Add(key, value);
  }
  [[nodiscard]] absl::Status AddTrailingMetadata(std::string_view key, std::string_view value) {
    return trailing_metadata_.Add(key, value);
  }
  const net::Metadata& initial_metadata() const { return initial_metadata_; }
  const net::Metadata& trailing_metadata() const { return trailing_metadata_; }

  // For the server: nobody waits for the answer any more. Runs the closure of NotifyOnCancel().
  void Cancel();
  // For the server: the call has completed. Runs the same closure, if it still waits.
  void Complete();

  // google::protobuf::RpcController. SetFailed() alone is status UNKNOWN with that text.
  void SetFailed(const std::string& reason) override { status_ = absl::UnknownError(reason); }
  bool Failed() const override { return !status_.ok(); }
  std::string ErrorText() const override { return std::string(status_.message()); }
  void Reset() override { status_ = absl::OkStatus(); }
  // The client reset the call, its connection was lost, or its deadline has passed.
  bool IsCanceled() const override { return canceled_; }
  // At most once per call; fatal while an earlier closure waits. Runs `closure` exactly once: when
  // the call is cancelled (at once if it is already), or else after the call has completed.
  void NotifyOnCancel(google::protobuf::Closure* closure) override;
  // The client's side of the interface: cancelling is the client's right, so this does nothing
  // here.
  void StartCancel() override {}

 private:
  const absl::Time deadline_;
  const std::shared_ptr<const net::Peer> peer_;  // Never null.
  const std::string role_;
  const std::shared_ptr<const net::Metadata> metadata_;  // Never null.
  net::Metadata initial_metadata_;
  net::Metadata trailing_metadata_;
  absl::Status status_;
  bool canceled_ = false;
  google::protobuf::Closure* on_cancel_ = nullptr;
};

}  // namespace varnic

#endif  // CORE_SERVER_SERVER_CONTROLLER_H_
