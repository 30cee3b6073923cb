#include "core/net/socket_stream.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <utility>

#include "absl/strings/match.h"
#include "absl/strings/str_cat.h"
#include "base/logging.h"
#include "core/net/asio.h"
#include "core/net/inherited_socket.h"
#include "core/net/lifetime.h"
#include "core/net/log_field.h"
#include "core/net/log_limiter.h"

namespace varnic::net {
namespace {

using Socket = asio::generic::stream_protocol::socket;

// One turn of the loop reads at most this much of one connection, so that no peer starves the
// others.
constexpr std::size_t kReadBytes = 64 << 10;

// How long to wait before accepting again after a failure: the process or the system has run out of
// file descriptors, or of memory.
constexpr absl::Duration kAcceptPause = absl::Milliseconds(100);

absl::Status StatusFrom(const asio::error_code& error, const std::string& what) {
  return absl::UnavailableError(absl::StrCat(what, ": ", error.message()));
}

// Keeps the programs that this process starts from inheriting a socket: they would hold a
// connection open that was closed here, and an address in use.
template <class AnySocket>
void SetCloseOnExec(AnySocket& socket) {
  fcntl(socket.native_handle(), F_SETFD, FD_CLOEXEC);
}

// Waits for readiness and then reads into a buffer that all streams of a thread share, so that an
// idle connection costs no buffer.
class SocketStream : public ByteStream {
 public:
  SocketStream(Socket socket, Peer peer) : socket_(std::move(socket)), peer_(std::move(peer)) {
    SetCloseOnExec(socket_);
    asio::error_code ignored;  // A socket that fails here fails at the first read.
    socket_.non_blocking(true, ignored);
  }

  void Start(Visitor& visitor) override {
    visitor_ = &visitor;
    WaitReadable();
  }

  std::size_t Write(std::string_view bytes) override {
    asio::error_code error;
    const std::size_t written = socket_.write_some(asio::buffer(bytes.data(), bytes.size()), error);
    // Any other failure shows at the read side as well, which reports it.
    if (written < bytes.size() && (!error || error == asio::error::would_block)) WaitWritable();
    return written;
  }

  void ShutdownWrite() override {
    asio::error_code ignored;  // A connection that is gone needs no farewell.
    socket_.shutdown(Socket::shutdown_send, ignored);
  }

  const Peer& peer() const override { return peer_; }

 private:
  void WaitReadable() {
    socket_.async_wait(Socket::wait_read, lifetime_.Guard([this](const asio::error_code& error) {
      if (error) {
        visitor_->OnClosed(StatusFrom(error, "connection lost"));
      } else {
        Read();
      }
    }));
  }

  void Read() {
    static thread_local char buffer[kReadBytes];
    asio::error_code error;
    const std::size_t size = socket_.read_some(asio::buffer(buffer), error);
    if (error == asio::error::would_block) {
      WaitReadable();
    } else if (error == asio::error::eof) {
      visitor_->OnClosed(absl::OkStatus());
    } else if (error) {
      visitor_->OnClosed(StatusFrom(error, "connection lost"));
    } else {
      WaitReadable();
      visitor_->OnBytes(std::string_view(buffer, size));
    }
  }

  void WaitWritable() {
    if (std::exchange(waiting_to_write_, true)) return;
    socket_.async_wait(Socket::wait_write, lifetime_.Guard([this](const asio::error_code& error) {
      waiting_to_write_ = false;
      if (!error) visitor_->OnWritable();
    }));
  }

  Socket socket_;
  const Peer peer_;
  Visitor* visitor_ = nullptr;
  bool waiting_to_write_ = false;
  Lifetime lifetime_;
};

absl::StatusOr<Peer> ReadPeer(asio::local::stream_protocol::socket& socket) {
  return ReadUnixPeer(socket.native_handle());
}
absl::StatusOr<Peer> ReadPeer(asio::ip::tcp::socket& socket) {
  asio::error_code error;
  const asio::ip::tcp::endpoint endpoint = socket.remote_endpoint(error);
  if (error) return StatusFrom(error, "cannot read the peer's address");
  Address address;
  address.host = endpoint.address().to_string();
  address.port = endpoint.port();
  Peer peer;
  peer.address = address.ToString();
  return peer;
}

// Sockets on which small frames are sent as soon as they are there.
std::unique_ptr<ByteStream> MakeStream(asio::local::stream_protocol::socket socket, Peer peer) {
  return std::make_unique<SocketStream>(Socket(std::move(socket)), std::move(peer));
}
std::unique_ptr<ByteStream> MakeStream(asio::ip::tcp::socket socket, Peer peer) {
  asio::error_code ignored;  // Slower then, not broken.
  socket.set_option(asio::ip::tcp::no_delay(true), ignored);
  return std::make_unique<SocketStream>(Socket(std::move(socket)), std::move(peer));
}

template <class Protocol>
class AsioListener : public Listener {
 public:
  AsioListener(EventLoop& loop, OnAccept on_accept, const ListenerOptions& options)
      : options_(options),
        acceptor_(loop.context()),
        pause_(loop),
        on_accept_(std::move(on_accept)) {}

  const Address& address() const override { return address_; }
  std::uint64_t refused() const override { return refused_; }

 protected:
  using Acceptor = asio::basic_socket_acceptor<Protocol>;

  void Accept() {
    acceptor_.async_accept(
        lifetime_.Guard([this](const asio::error_code& error, typename Protocol::socket socket) {
          if (!error) Admit(std::move(socket));
          OnAccepted(error);
        }));
  }

  void OnAccepted(const asio::error_code& error) {
    if (!error) return Accept();
    const std::optional<std::uint64_t> left_out = failures_.Admit();
    if (left_out && logging::ShouldCreateLogMessage(logging::LOGGING_WARNING)) {
      logging::LogMessage(__FILE__, __LINE__, logging::LOGGING_WARNING).stream()
          << "Cannot accept a connection" << LogField("address", address_.ToString())
          << LogField("reason", error.message()) << LogLimiter::More(*left_out);
    }
    pause_.Start(kAcceptPause, [this] { Accept(); });
  }

  absl::Status Failure(const std::string& why) const {
    return absl::FailedPreconditionError(
        absl::StrCat("cannot listen on ", address_.ToString(), ": ", why));
  }

  const ListenerOptions options_;
  Acceptor acceptor_;
  Address address_;

 private:
  // Drops the socket of a peer that may not come in.
  void Admit(typename Protocol::socket socket) {
    absl::StatusOr<Peer> peer = ReadPeer(socket);
    if (!peer.ok()) return Refuse(LogField("reason", std::string(peer.status().message())));
    if (peer->kind == Peer::Kind::kUnix && !options_.unix_admission.Admits(*peer)) {
      return Refuse(absl::StrCat(" ", peer->ToString()));
    }
    on_accept_(MakeStream(std::move(socket), *std::move(peer)));
  }

  void Refuse(const std::string& who) {
    ++refused_;
    const std::optional<std::uint64_t> left_out = refusals_.Admit();
    if (left_out && logging::ShouldCreateLogMessage(logging::LOGGING_WARNING)) {
      logging::LogMessage(__FILE__, __LINE__, logging::LOGGING_WARNING).stream()
          << "Refused a connection" << LogField("address", address_.ToString()) << who
          << LogLimiter::More(*left_out);
    }
  }

  Timer pause_;
  const OnAccept on_accept_;
  std::uint64_t refused_ = 0;
  LogLimiter failures_;
  LogLimiter refusals_;
  Lifetime lifetime_;
};

class UnixListener : public AsioListener<asio::local::stream_protocol> {
 public:
  using AsioListener::AsioListener;

  ~UnixListener() override {
    // Whoever has removed the file and listens there now keeps what is theirs.
    struct stat info;
    if (bound_ && lstat(address_.path.c_str(), &info) == 0 && info.st_dev == file_.st_dev &&
        info.st_ino == file_.st_ino) {
      unlink(address_.path.c_str());
    }
  }

  absl::Status Adopt(int fd, const Address& address) {
    address_ = address;
    asio::error_code error;
    acceptor_.assign(asio::local::stream_protocol(), fd, error);
    if (error) return Failure(error.message());
    SetCloseOnExec(acceptor_);
    Accept();
    return absl::OkStatus();
  }

  absl::Status Start(const Address& address) {
    address_ = address;
    asio::error_code error;
    const asio::local::stream_protocol::endpoint endpoint(address.path);
    acceptor_.open(endpoint.protocol(), error);
    if (!error) SetCloseOnExec(acceptor_);
    if (!error) acceptor_.bind(endpoint, error);
    if (error == asio::error::address_in_use) {
      if (absl::Status status = RemoveStale(endpoint); !status.ok()) return status;
      acceptor_.bind(endpoint, error);
    }
    if (error) return Failure(error.message());
    bound_ = lstat(address.path.c_str(), &file_) == 0;
    // Nobody can connect before the call of listen, so nobody gets in before the mode is set.
    if (chmod(address.path.c_str(), options_.unix_admission.SocketMode()) != 0) {
      return Failure("cannot set the socket's mode");
    }
    acceptor_.listen(Acceptor::max_listen_connections, error);
    if (error) return Failure(error.message());
    Accept();
    return absl::OkStatus();
  }

 private:
  absl::Status RemoveStale(const asio::local::stream_protocol::endpoint& endpoint) {
    struct stat info;
    if (lstat(address_.path.c_str(), &info) != 0 || !S_ISSOCK(info.st_mode)) {
      return Failure("something that is not a socket is in the way");
    }
    asio::local::stream_protocol::socket probe(acceptor_.get_executor());
    asio::error_code error;
    probe.open(endpoint.protocol(), error);
    // A process that accepts nothing, with many waiting, must not hold this one up.
    if (!error) probe.non_blocking(true, error);
    if (!error) probe.connect(endpoint, error);
    if (error != asio::error::connection_refused) {
      return Failure("another process listens there already");
    }
    unlink(address_.path.c_str());
    return absl::OkStatus();
  }

  bool bound_ = false;
  struct stat file_ = {};  // Of the socket file, once bound.
};

// Names are for people's configurations: only the one that every machine has is understood here.
asio::ip::address NumericAddress(const Address& address, asio::error_code& error) {
  if (address.host == "localhost") return asio::ip::address_v4::loopback();
  return asio::ip::make_address(address.host, error);
}

class TcpListener : public AsioListener<asio::ip::tcp> {
 public:
  using AsioListener::AsioListener;

  absl::Status Adopt(int fd, const Address& address) {
    address_ = address;
    if (absl::Status status = CheckReach(); !status.ok()) return status;
    const bool ipv6 = absl::StrContains(address.host, ':');
    asio::error_code error;
    acceptor_.assign(ipv6 ? asio::ip::tcp::v6() : asio::ip::tcp::v4(), fd, error);
    if (error) return Failure(error.message());
    SetCloseOnExec(acceptor_);
    Accept();
    return absl::OkStatus();
  }

  absl::Status Start(const Address& address) {
    address_ = address;
    if (absl::Status status = CheckReach(); !status.ok()) return status;
    asio::error_code error;
    const asio::ip::tcp::endpoint endpoint(NumericAddress(address, error), address.port);
    if (!error) acceptor_.open(endpoint.protocol(), error);
    if (!error) SetCloseOnExec(acceptor_);
    if (!error) acceptor_.set_option(asio::socket_base::reuse_address(true), error);
    if (!error) acceptor_.bind(endpoint, error);
    if (!error) acceptor_.listen(Acceptor::max_listen_connections, error);
    if (!error) address_.port = acceptor_.local_endpoint(error).port();
    if (error) return Failure(error.message());
    Accept();
    return absl::OkStatus();
  }

 private:
  absl::Status CheckReach() const {
    if (options_.beyond_loopback || address_.IsLoopback()) return absl::OkStatus();
    return Failure("plain TCP is served on a loopback address only, such as 127.0.0.1");
  }
};

template <class ListenerType>
absl::StatusOr<std::unique_ptr<Listener>> StartListener(EventLoop& loop, const Address& address,
                                                        Listener::OnAccept on_accept,
                                                        const ListenerOptions& options) {
  auto listener = std::make_unique<ListenerType>(loop, std::move(on_accept), options);
  if (absl::Status status = listener->Start(address); !status.ok()) return status;
  return std::unique_ptr<Listener>(std::move(listener));
}

template <class ListenerType>
absl::StatusOr<std::unique_ptr<Listener>> AdoptListener(EventLoop& loop, int fd,
                                                        const Address& address,
                                                        Listener::OnAccept on_accept,
                                                        const ListenerOptions& options) {
  auto listener = std::make_unique<ListenerType>(loop, std::move(on_accept), options);
  if (absl::Status status = listener->Adopt(fd, address); !status.ok()) return status;
  return std::unique_ptr<Listener>(std::move(listener));
}

template <class Protocol>
class AsioConnector : public Connector {
 public:
  AsioConnector(EventLoop& loop, const Address& address, Done done)
      : socket_(loop.context()), address_(address), done_(std::move(done)) {}

  void Start(const typename Protocol::endpoint& endpoint) {
    socket_.async_connect(endpoint, lifetime_.Guard([this](const asio::error_code& error) {
      // The owner may destroy this connector inside the call.
      const Done done = std::move(done_);
      if (error) {
        return done(StatusFrom(error, absl::StrCat("cannot connect to ", address_.ToString())));
      }
      absl::StatusOr<Peer> peer = ReadPeer(socket_);
      if (!peer.ok()) return done(peer.status());
      done(MakeStream(std::move(socket_), *std::move(peer)));
    }));
  }

  void Fail(EventLoop& loop, absl::Status status) {
    loop.Post(lifetime_.Guard([this, status = std::move(status)] {
      const Done done = std::move(done_);
      done(status);
    }));
  }

 private:
  typename Protocol::socket socket_;
  const Address address_;
  Done done_;
  Lifetime lifetime_;
};

}  // namespace

absl::StatusOr<std::unique_ptr<Listener>> Listener::Listen(EventLoop& loop, const Address& address,
                                                           OnAccept on_accept,
                                                           const ListenerOptions& options) {
  if (address.kind == Address::Kind::kUnix) {
    return StartListener<UnixListener>(loop, address, std::move(on_accept), options);
  }
  return StartListener<TcpListener>(loop, address, std::move(on_accept), options);
}

absl::StatusOr<std::unique_ptr<Listener>> Listener::Adopt(EventLoop& loop, int fd,
                                                          OnAccept on_accept,
                                                          const ListenerOptions& options) {
  const absl::StatusOr<Address> address = InheritedAddress(fd);
  if (!address.ok()) return address.status();
  if (address->kind == Address::Kind::kUnix) {
    return AdoptListener<UnixListener>(loop, fd, *address, std::move(on_accept), options);
  }
  return AdoptListener<TcpListener>(loop, fd, *address, std::move(on_accept), options);
}

std::unique_ptr<Connector> Connector::Connect(EventLoop& loop, const Address& address, Done done) {
  if (address.kind == Address::Kind::kUnix) {
    auto connector = std::make_unique<AsioConnector<asio::local::stream_protocol>>(loop, address,
                                                                                   std::move(done));
    connector->Start(asio::local::stream_protocol::endpoint(address.path));
    return connector;
  }
  auto connector = std::make_unique<AsioConnector<asio::ip::tcp>>(loop, address, std::move(done));
  asio::error_code error;
  const asio::ip::address numeric = NumericAddress(address, error);
  if (error) {
    connector->Fail(loop, absl::InvalidArgumentError(absl::StrCat(
                              "cannot connect to ", address.ToString(),
                              ": the host must be \"localhost\" or a numeric address")));
  } else {
    connector->Start(asio::ip::tcp::endpoint(numeric, address.port));
  }
  return connector;
}

}  // namespace varnic::net
