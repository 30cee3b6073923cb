#include "bench/side_by_side/grpc_connection.h"

#include <poll.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "bench/side_by_side/measurement.h"

namespace varnic::bench {
namespace {

constexpr std::size_t kFramingBytes = 5;
// What has come at once is answered in pieces, so that the server has something to do meanwhile.
constexpr std::size_t kStepBytes = 2 << 10;
constexpr std::int32_t kConnectionWindowBytes = 64 << 20;
constexpr std::uint32_t kStreamWindowBytes = 1 << 20;

nghttp2_nv Field(std::string_view name, std::string_view value) {
  const auto bytes = [](std::string_view text) {
    return reinterpret_cast<std::uint8_t*>(const_cast<char*>(text.data()));
  };
  return {bytes(name), bytes(value), name.size(), value.size(),
          NGHTTP2_NV_FLAG_NO_COPY_NAME | NGHTTP2_NV_FLAG_NO_COPY_VALUE};
}

std::string_view PathOf(Method method) {
  switch (method) {
    case Method::kName:
      return "/rpc.Profile/Name";
    case Method::kPath:
      return "/rpc.Profile/Path";
    case Method::kIsDefault:
      return "/rpc.Profile/IsDefault";
    case Method::kWhenNetworkChanged:
      return "/rpc.Profile/WhenNetworkChanged";
    case Method::kOnCanAccessFile:
      return "/rpc.Profile/OnCanAccessFile";
  }
  Fail("no such method");
}

std::size_t MessageBytes(std::string_view framing) {
  std::size_t size = 0;
  for (std::size_t i = 1; i < kFramingBytes; ++i) {
    size = size << 8 | static_cast<unsigned char>(framing[i]);
  }
  return size;
}

}  // namespace

GrpcConnection::GrpcConnection(const std::string& address, Visitor& visitor)
    : visitor_(visitor), socket_(address) {
  Greet();
}
GrpcConnection::GrpcConnection(int fd, Visitor& visitor) : visitor_(visitor), socket_(fd) {
  Greet();
}
// Calls that are still open are left to the end of the program.
GrpcConnection::~GrpcConnection() = default;

void GrpcConnection::Greet() {
  nghttp2_session_callbacks* callbacks = nullptr;
  nghttp2_session_callbacks_new(&callbacks);
  nghttp2_session_callbacks_set_on_frame_recv_callback(callbacks, OnFrame);
  nghttp2_session_callbacks_set_on_header_callback(callbacks, OnHeader);
  nghttp2_session_callbacks_set_on_data_chunk_recv_callback(callbacks, OnDataChunk);
  nghttp2_session_callbacks_set_on_stream_close_callback(callbacks, OnStreamClosed);
  nghttp2_session* session = nullptr;
  nghttp2_session_client_new(&session, callbacks, this);
  session_.reset(session);
  nghttp2_session_callbacks_del(callbacks);

  const std::array<nghttp2_settings_entry, 2> settings = {
      {{NGHTTP2_SETTINGS_ENABLE_PUSH, 0},
       {NGHTTP2_SETTINGS_INITIAL_WINDOW_SIZE, kStreamWindowBytes}}};
  nghttp2_submit_settings(session, NGHTTP2_FLAG_NONE, settings.data(), settings.size());
  nghttp2_session_set_local_window_size(session, NGHTTP2_FLAG_NONE, 0, kConnectionWindowBytes);
  Flush();
  ReadUntil(greeted_);
}

GrpcCall& GrpcConnection::Start(Method method, std::string_view framed, bool half_close) {
  const std::array<nghttp2_nv, 8> fields = {Field(":method", "POST"),
                                            Field(":scheme", "http"),
                                            Field(":path", PathOf(method)),
                                            Field(":authority", "localhost"),
                                            Field("te", "trailers"),
                                            Field("content-type", "application/grpc"),
                                            Field("user-agent", "varnic-bench"),
                                            Field("grpc-accept-encoding", "identity")};
  auto call = std::make_unique<GrpcCall>();
  call->outgoing = framed;
  call->half_close = half_close;
  nghttp2_data_provider provider{};
  provider.source.ptr = call.get();
  provider.read_callback = OnSend;
  call->stream_id = nghttp2_submit_request(session_.get(), nullptr, fields.data(), fields.size(),
                                           &provider, call.get());
  if (call->stream_id < 0) Fail(nghttp2_strerror(call->stream_id));
  return *call.release();  // OnStreamClosed() deletes it.
}

void GrpcConnection::Send(GrpcCall& call, std::string_view framed, bool half_close) {
  call.outgoing += framed;
  call.half_close = half_close;
  if (!call.waits_for_data) return;
  call.waits_for_data = false;
  nghttp2_session_resume_data(session_.get(), call.stream_id);
}

void GrpcConnection::Read() {
  std::string_view bytes = socket_.Read();
  for (; !bytes.empty(); bytes.remove_prefix(std::min(bytes.size(), kStepBytes))) {
    Process(bytes.substr(0, kStepBytes));
    Flush();
  }
}

void GrpcConnection::Process(std::string_view bytes) {
  const ssize_t read = nghttp2_session_mem_recv(
      session_.get(), reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  if (read < 0) Fail(nghttp2_strerror(static_cast<int>(read)));
}

void GrpcConnection::Flush() {
  output_.clear();
  while (true) {
    const std::uint8_t* bytes = nullptr;
    const ssize_t size = nghttp2_session_mem_send(session_.get(), &bytes);
    if (size < 0) Fail(nghttp2_strerror(static_cast<int>(size)));
    if (size == 0) break;
    output_.append(reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(size));
  }
  if (!output_.empty()) socket_.Write(output_);
}

void GrpcConnection::ReadUntil(const bool& done) {
  while (!done) ReadOnceWaiting();
}

void GrpcConnection::ReadOnceWaiting() {
  visitor_.OnWait(socket_);
  pollfd readable{socket_.fd(), POLLIN, 0};
  // A busy machine and a server with much to do may need their time.
  if (poll(&readable, 1, 40'000) == 0) Fail("nothing has come from the server for 40 seconds");
  Read();
}

ssize_t GrpcConnection::OnSend(nghttp2_session* /*session*/, std::int32_t /*stream_id*/,
                               std::uint8_t* buffer, std::size_t size, std::uint32_t* flags,
                               nghttp2_data_source* source, void* /*self*/) {
  auto& call = *static_cast<GrpcCall*>(source->ptr);
  const std::size_t taken = std::min(size, call.outgoing.size());
  if (taken == 0 && !call.half_close) {
    call.waits_for_data = true;
    return NGHTTP2_ERR_DEFERRED;
  }
  std::copy_n(call.outgoing.data(), taken, buffer);
  call.outgoing.erase(0, taken);
  if (call.outgoing.empty() && call.half_close) *flags |= NGHTTP2_DATA_FLAG_EOF;
  return static_cast<ssize_t>(taken);
}

int GrpcConnection::OnFrame(nghttp2_session* session, const nghttp2_frame* frame, void* self) {
  auto& connection = *static_cast<GrpcConnection*>(self);
  if (frame->hd.type == NGHTTP2_SETTINGS) connection.greeted_ = true;
  if (frame->hd.type == NGHTTP2_GOAWAY) Fail("the server ends the connection");
  if (frame->hd.type != NGHTTP2_HEADERS) return 0;
  auto* call =
      static_cast<GrpcCall*>(nghttp2_session_get_stream_user_data(session, frame->hd.stream_id));
  if (call != nullptr) connection.visitor_.OnHeaders(connection, *call);
  return 0;
}

int GrpcConnection::OnHeader(nghttp2_session* session, const nghttp2_frame* frame,
                             const std::uint8_t* name, std::size_t name_size,
                             const std::uint8_t* value, std::size_t value_size,
                             std::uint8_t /*flags*/, void* /*self*/) {
  constexpr std::string_view kStatus = "grpc-status";
  if (name_size != kStatus.size() || std::memcmp(name, kStatus.data(), name_size) != 0) return 0;
  auto* call =
      static_cast<GrpcCall*>(nghttp2_session_get_stream_user_data(session, frame->hd.stream_id));
  if (call != nullptr) call->ok = value_size == 1 && *value == '0';
  return 0;
}

int GrpcConnection::OnDataChunk(nghttp2_session* session, std::uint8_t /*flags*/,
                                std::int32_t stream_id, const std::uint8_t* data, std::size_t size,
                                void* self) {
  auto* call = static_cast<GrpcCall*>(nghttp2_session_get_stream_user_data(session, stream_id));
  if (call != nullptr) {
    static_cast<GrpcConnection*>(self)->OnData(*call, {reinterpret_cast<const char*>(data), size});
  }
  return 0;
}

void GrpcConnection::OnData(GrpcCall& call, std::string_view bytes) {
  // Most chunks are whole messages, which are not copied.
  std::string joined;
  if (!call.incoming.empty()) {
    joined = std::move(call.incoming);
    joined += bytes;
    bytes = joined;
    call.incoming.clear();
  }
  while (bytes.size() >= kFramingBytes) {
    const std::size_t size = MessageBytes(bytes);
    if (bytes.size() < kFramingBytes + size) break;
    call.answered = true;
    visitor_.OnMessage(*this, call, bytes.substr(kFramingBytes, size));
    bytes.remove_prefix(kFramingBytes + size);
  }
  call.incoming = bytes;
}

int GrpcConnection::OnStreamClosed(nghttp2_session* session, std::int32_t stream_id,
                                   std::uint32_t /*error_code*/, void* self) {
  auto& connection = *static_cast<GrpcConnection*>(self);
  const std::unique_ptr<GrpcCall> call(
      static_cast<GrpcCall*>(nghttp2_session_get_stream_user_data(session, stream_id)));
  if (call != nullptr) connection.visitor_.OnEnd(connection, *call);
  return 0;
}

}  // namespace varnic::bench
