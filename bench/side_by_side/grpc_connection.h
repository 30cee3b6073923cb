#ifndef BENCH_SIDE_BY_SIDE_GRPC_CONNECTION_H_
#define BENCH_SIDE_BY_SIDE_GRPC_CONNECTION_H_

#include <nghttp2/nghttp2.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "bench/side_by_side/load_socket.h"

namespace varnic::bench {

// The methods of rpc.Profile that are used here.
enum class Method { kName, kPath, kIsDefault, kWhenNetworkChanged, kOnCanAccessFile };

// A call on a GrpcConnection, which deletes it when it has ended.
struct GrpcCall {
  std::int32_t stream_id = 0;
  std::int64_t started_ns = 0;
  bool answered = false;    // A message has come.
  bool ok = false;          // It ended with grpc-status 0.
  bool half_close = false;  // Once `outgoing` is sent.
  bool waits_for_data = false;
  std::string outgoing;
  std::string incoming;  // The beginning of a message whose end has not come.
};

// gRPC's wire format with as little work as possible: HTTP/2 by nghttp2, the same header fields for
// every call, and messages that are ready to send. Fast enough that a measurement is about the
// server.
class GrpcConnection {
 public:
  // Called while Read() runs; starting calls and sending is fine.
  class Visitor {
   public:
    virtual ~Visitor() = default;
    // Before ReadUntil() waits, also in the constructor: for a program that has the server in it.
    virtual void OnWait(const LoadSocket& /*socket*/) {}
    virtual void OnHeaders(GrpcConnection& /*connection*/, GrpcCall& /*call*/) {}
    // Without the five bytes of gRPC's framing; valid for the call.
    virtual void OnMessage(GrpcConnection& connection, GrpcCall& call,
                           std::string_view message) = 0;
    virtual void OnEnd(GrpcConnection& /*connection*/, GrpcCall& /*call*/) {}
  };

  // Returns when the server has said hello. `visitor` outlives the connection.
  GrpcConnection(const std::string& address, Visitor& visitor);
  GrpcConnection(int fd, Visitor& visitor);
  GrpcConnection(const GrpcConnection&) = delete;
  GrpcConnection& operator=(const GrpcConnection&) = delete;
  ~GrpcConnection();

  const LoadSocket& socket() const { return socket_; }

  // `framed` is a message with gRPC's framing.
  GrpcCall& Start(Method method, std::string_view framed, bool half_close);
  void Send(GrpcCall& call, std::string_view framed, bool half_close = false);
  // Takes in what has come, and sends what is to be sent.
  void Read();
  void Flush();
  // Waits and reads until `done`; for when nothing else goes on.
  void ReadUntil(const bool& done);

 private:
  struct SessionDeleter {
    void operator()(nghttp2_session* session) const { nghttp2_session_del(session); }
  };

  void Greet();
  void ReadOnceWaiting();
  void Process(std::string_view bytes);
  void OnData(GrpcCall& call, std::string_view bytes);

  static ssize_t OnSend(nghttp2_session* session, std::int32_t stream_id, std::uint8_t* buffer,
                        std::size_t size, std::uint32_t* flags, nghttp2_data_source* source,
                        void* self);
  static int OnFrame(nghttp2_session* session, const nghttp2_frame* frame, void* self);
  static int OnHeader(nghttp2_session* session, const nghttp2_frame* frame,
                      const std::uint8_t* name, std::size_t name_size, const std::uint8_t* value,
                      std::size_t value_size, std::uint8_t flags, void* self);
  static int OnDataChunk(nghttp2_session* session, std::uint8_t flags, std::int32_t stream_id,
                         const std::uint8_t* data, std::size_t size, void* self);
  static int OnStreamClosed(nghttp2_session* session, std::int32_t stream_id,
                            std::uint32_t error_code, void* self);

  Visitor& visitor_;
  LoadSocket socket_;
  bool greeted_ = false;
  std::string output_;
  std::unique_ptr<nghttp2_session, SessionDeleter> session_;
};

}  // namespace varnic::bench

#endif  // BENCH_SIDE_BY_SIDE_GRPC_CONNECTION_H_
