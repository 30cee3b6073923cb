#ifndef CORE_CLIENT_CONNECTION_KEEPER_H_
#define CORE_CLIENT_CONNECTION_KEEPER_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "absl/status/status.h"
#include "absl/status/statusor.h"
#include "absl/time/time.h"
#include "core/client/attempt_pacer.h"
#include "core/client/client_options.h"
#include "core/net/address.h"
#include "core/net/event_loop.h"
#include "core/net/grpc_client_connection.h"
#include "core/net/lifetime.h"
#include "core/net/socket_stream.h"
#include "core/net/tls_context.h"

namespace varnic {

// Makes the connection of a client when somebody waits for it, and keeps those that the server is
// about to close until their calls have ended.
//
// Whoever waits for a connection shares the attempt that is under way. A call waits for one attempt
// and is told how it ended; a stream waits for as long as it takes, and keeps the attempts going
// with the backoff of the options. An attempt that a call makes counts for streams as well, if it
// succeeds.
//
// Lives on the loop. Must not be destroyed inside a waiter's call.
class ConnectionKeeper : private net::GrpcClientConnection::Visitor {
 public:
  class Waiter {
   public:
    virtual ~Waiter() = default;
    // The wait is over. Starts a call there, and calls nobody back.
    virtual void OnConnected(net::GrpcClientConnection& connection) = 0;
    // With Patience::kOneAttempt the wait is over; otherwise the next attempt is in `retry_in`.
    // There is none, and the wait is over, if no attempt can succeed: what is wrong is the target,
    // or the files for TLS.
    virtual void OnConnectFailed(const absl::Status& why,
                                 std::optional<absl::Duration> retry_in) = 0;
  };

  enum class Patience {
    kOneAttempt,  // At once.
    kNow,         // At once, and then again.
    kWhenDue,     // When the backoff allows it, and then again.
  };

  using Ticket = std::uint64_t;  // Never 0.

  ConnectionKeeper(net::EventLoop& loop, const std::string& target, const ClientOptions& options);
  ConnectionKeeper(const ConnectionKeeper&) = delete;
  ConnectionKeeper& operator=(const ConnectionKeeper&) = delete;
  ~ConnectionKeeper() override;

  // Null while there is none. It may still turn out to take no more calls; then wait for another.
  net::GrpcClientConnection* current() { return current_; }

  // `waiter` is told on the loop, never inside this, and lives until the wait is over.
  Ticket Wait(Waiter& waiter, Patience patience);
  // Ends a wait; nothing happens if it is over.
  void Leave(Ticket ticket) { waits_.erase(ticket); }

  // For each stream, while it lives: whoever owns the client sees to it that there is none left.
  void OnStreamBegins() { ++streams_; }
  void OnStreamEnds() { --streams_; }
  std::size_t streams() const { return streams_; }

  // How long the next attempt of those who keep trying has to wait for the last one.
  absl::Duration UntilNextAttempt() const { return pacer_.UntilNext(); }

 private:
  struct Waiting {
    Waiter* waiter;
    bool keeps_trying;
  };

  absl::Status SetupStatus() const;
  void AttemptForStreams();
  void RetryIn(absl::Duration delay);
  void Connect();
  void OnAttemptEnded(absl::StatusOr<std::unique_ptr<net::ByteStream>> stream);
  void Add(std::unique_ptr<net::ByteStream> stream);
  void TellConnected();
  void TellFailed(const absl::Status& why);
  bool AnyoneKeepsTrying() const;
  std::vector<Ticket> Tickets() const;

  void OnGoaway(net::GrpcClientConnection& connection) override;
  void OnConnectionClosed(net::GrpcClientConnection& connection,
                          const absl::Status& status) override;
  void Retire(const net::GrpcClientConnection& connection);

  net::EventLoop& loop_;
  const ClientOptions options_;
  const absl::StatusOr<net::Address> target_;
  const absl::StatusOr<std::unique_ptr<net::TlsClientContext>> tls_;  // Null without TLS.
  std::size_t streams_ = 0;
  Ticket last_ticket_ = 0;
  std::map<Ticket, Waiting> waits_;  // In the order in which they began.
  std::vector<std::unique_ptr<net::GrpcClientConnection>> connections_;
  net::GrpcClientConnection* current_ = nullptr;
  std::unique_ptr<net::Connector> connector_;  // While connecting.
  net::Timer connect_timer_;
  AttemptPacer pacer_;             // Of the attempts for those who keep trying.
  bool attempt_is_paced_ = false;  // The one that is under way.
  bool retry_is_planned_ = false;
  net::Timer retry_timer_;
  net::Lifetime lifetime_;
};

}  // namespace varnic

#endif  // CORE_CLIENT_CONNECTION_KEEPER_H_
