#include "core/net/testing/raw_http2_peer.h"

#include <nghttp2/nghttp2.h>

#include <algorithm>

#include "absl/strings/str_cat.h"

namespace varnic::net::testing {
namespace {

std::vector<nghttp2_nv> NameValues(const RawHttp2Peer::Fields& fields) {
  std::vector<nghttp2_nv> values;
  for (const auto& [name, value] : fields) {
    values.push_back({reinterpret_cast<uint8_t*>(const_cast<char*>(name.data())),
                      reinterpret_cast<uint8_t*>(const_cast<char*>(value.data())), name.size(),
                      value.size(), NGHTTP2_NV_FLAG_NONE});
  }
  return values;
}

}  // namespace

struct RawHttp2Peer::Callbacks {
  static RawHttp2Peer& Self(void* user_data) { return *static_cast<RawHttp2Peer*>(user_data); }

  static void Note(RawHttp2Peer& self, std::string event) {
    self.events_.push_back(std::move(event));
    self.last_data_ = 0;
  }

  static int OnHeader(nghttp2_session*, const nghttp2_frame*, const uint8_t* name, size_t name_size,
                      const uint8_t* value, size_t value_size, uint8_t, void* user_data) {
    absl::StrAppend(&Self(user_data).fields_, " ",
                    std::string(reinterpret_cast<const char*>(name), name_size), "=",
                    std::string(reinterpret_cast<const char*>(value), value_size));
    return 0;
  }

  static int OnData(nghttp2_session*, uint8_t, int32_t stream_id, const uint8_t* data, size_t size,
                    void* user_data) {
    RawHttp2Peer& self = Self(user_data);
    const std::string text(reinterpret_cast<const char*>(data), size);
    self.bodies_[stream_id] += text;
    if (self.last_data_ == stream_id) {
      self.events_.back() += text;
    } else {
      Note(self, absl::StrCat("DATA ", stream_id, " ", text));
      self.last_data_ = stream_id;
    }
    return 0;
  }

  static int OnFrame(nghttp2_session*, const nghttp2_frame* frame, void* user_data) {
    RawHttp2Peer& self = Self(user_data);
    const int32_t id = frame->hd.stream_id;
    switch (frame->hd.type) {
      case NGHTTP2_HEADERS:
        Note(self, absl::StrCat("HEADERS ", id, std::exchange(self.fields_, std::string())));
        break;
      case NGHTTP2_RST_STREAM:
        Note(self, absl::StrCat("RESET ", id, " ", frame->rst_stream.error_code));
        break;
      case NGHTTP2_GOAWAY:
        Note(self,
             absl::StrCat("GOAWAY ", frame->goaway.last_stream_id, " ", frame->goaway.error_code));
        self.goaway_text_.assign(reinterpret_cast<const char*>(frame->goaway.opaque_data),
                                 frame->goaway.opaque_data_len);
        break;
      case NGHTTP2_PING:
        if ((frame->hd.flags & NGHTTP2_FLAG_ACK) == 0) Note(self, "PING");
        break;
      default:
        break;
    }
    const bool ends = frame->hd.type == NGHTTP2_HEADERS || frame->hd.type == NGHTTP2_DATA;
    if (ends && (frame->hd.flags & NGHTTP2_FLAG_END_STREAM)) Note(self, absl::StrCat("END ", id));
    return 0;
  }

  static ssize_t ReadData(nghttp2_session* session, int32_t stream_id, uint8_t* buffer, size_t size,
                          uint32_t* flags, nghttp2_data_source*, void* user_data) {
    Outgoing& outgoing = Self(user_data).outgoing_[stream_id];
    const size_t taken = std::min(size, outgoing.data.size());
    outgoing.data.copy(reinterpret_cast<char*>(buffer), taken);
    outgoing.data.erase(0, taken);
    if (outgoing.data.empty() && outgoing.end) {
      *flags |= NGHTTP2_DATA_FLAG_EOF;
      if (!outgoing.trailers.empty()) {
        *flags |= NGHTTP2_DATA_FLAG_NO_END_STREAM;
        const auto trailers = NameValues(outgoing.trailers);
        nghttp2_submit_trailer(session, stream_id, trailers.data(), trailers.size());
      }
    } else if (taken == 0) {
      return NGHTTP2_ERR_DEFERRED;
    }
    return static_cast<ssize_t>(taken);
  }

  static nghttp2_data_provider Provider() {
    nghttp2_data_provider provider = {};
    provider.read_callback = ReadData;
    return provider;
  }
};

void RawHttp2Peer::SessionDeleter::operator()(nghttp2_session* session) const {
  nghttp2_session_del(session);
}

RawHttp2Peer::RawHttp2Peer(Role role, uint32_t max_concurrent_streams,
                           uint32_t stream_window_bytes) {
  nghttp2_session_callbacks* callbacks;
  nghttp2_session_callbacks_new(&callbacks);
  nghttp2_session_callbacks_set_on_header_callback(callbacks, Callbacks::OnHeader);
  nghttp2_session_callbacks_set_on_data_chunk_recv_callback(callbacks, Callbacks::OnData);
  nghttp2_session_callbacks_set_on_frame_recv_callback(callbacks, Callbacks::OnFrame);
  nghttp2_option* options;
  nghttp2_option_new(&options);
  nghttp2_option_set_no_http_messaging(options, 1);
  nghttp2_option_set_no_auto_window_update(options, 1);
  nghttp2_option_set_peer_max_concurrent_streams(options, 1'000'000);
  // Answers and requests of any size, so that limits of the other side can be tried.
  nghttp2_option_set_max_send_header_block_length(options, 1 << 20);

  nghttp2_session* session;
  if (role == Role::kClient) {
    nghttp2_session_client_new2(&session, callbacks, this, options);
  } else {
    nghttp2_session_server_new2(&session, callbacks, this, options);
  }
  session_.reset(session);
  nghttp2_option_del(options);
  nghttp2_session_callbacks_del(callbacks);
  const nghttp2_settings_entry settings[] = {
      {NGHTTP2_SETTINGS_MAX_CONCURRENT_STREAMS, max_concurrent_streams},
      {NGHTTP2_SETTINGS_INITIAL_WINDOW_SIZE, stream_window_bytes}};
  nghttp2_submit_settings(session, NGHTTP2_FLAG_NONE, settings, 2);
}

RawHttp2Peer::~RawHttp2Peer() = default;

int32_t RawHttp2Peer::Request(const Fields& fields, bool end) {
  const auto values = NameValues(fields);
  const nghttp2_data_provider provider = Callbacks::Provider();
  return nghttp2_submit_request(session_.get(), nullptr, values.data(), values.size(),
                                end ? nullptr : &provider, nullptr);
}

void RawHttp2Peer::Respond(int32_t stream_id, const Fields& fields, bool end) {
  const auto values = NameValues(fields);
  const nghttp2_data_provider provider = Callbacks::Provider();
  nghttp2_submit_response(session_.get(), stream_id, values.data(), values.size(),
                          end ? nullptr : &provider);
}

void RawHttp2Peer::Inform(int32_t stream_id, const Fields& fields) {
  const auto values = NameValues(fields);
  nghttp2_submit_headers(session_.get(), NGHTTP2_FLAG_NONE, stream_id, nullptr, values.data(),
                         values.size(), nullptr);
}

void RawHttp2Peer::Data(int32_t stream_id, std::string_view bytes, bool end) {
  outgoing_[stream_id].data += bytes;
  outgoing_[stream_id].end = end;
  nghttp2_session_resume_data(session_.get(), stream_id);
}

void RawHttp2Peer::Trailers(int32_t stream_id, const Fields& fields) {
  outgoing_[stream_id].trailers = fields;
  Data(stream_id, "", /*end=*/true);
}

void RawHttp2Peer::Reset(int32_t stream_id, uint32_t error_code) {
  nghttp2_submit_rst_stream(session_.get(), NGHTTP2_FLAG_NONE, stream_id, error_code);
}

void RawHttp2Peer::Goaway(int32_t last_stream_id, uint32_t error_code, const std::string& text) {
  nghttp2_submit_goaway(session_.get(), NGHTTP2_FLAG_NONE, last_stream_id, error_code,
                        reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

void RawHttp2Peer::Ping() {
  nghttp2_submit_ping(session_.get(), NGHTTP2_FLAG_NONE, /*opaque_data=*/nullptr);
}

void RawHttp2Peer::Read(int32_t stream_id, int32_t bytes) {
  nghttp2_submit_window_update(session_.get(), NGHTTP2_FLAG_NONE, stream_id, bytes);
}

std::string RawHttp2Peer::Take() {
  std::string output;
  const uint8_t* data = nullptr;
  for (ssize_t size; (size = nghttp2_session_mem_send(session_.get(), &data)) > 0;) {
    output.append(reinterpret_cast<const char*>(data), static_cast<std::size_t>(size));
  }
  return output;
}

void RawHttp2Peer::Receive(std::string_view bytes) {
  nghttp2_session_mem_recv(session_.get(), reinterpret_cast<const uint8_t*>(bytes.data()),
                           bytes.size());
}

std::string MakeFrame(uint8_t type, uint8_t flags, int32_t stream_id, std::string_view payload) {
  std::string frame;
  const auto append = [&frame](uint32_t number, int bytes) {
    while (bytes-- > 0) frame.push_back(static_cast<char>(number >> (8 * bytes)));
  };
  append(static_cast<uint32_t>(payload.size()), 3);
  append(type, 1);
  append(flags, 1);
  append(static_cast<uint32_t>(stream_id), 4);
  return frame.append(payload);
}

}  // namespace varnic::net::testing
