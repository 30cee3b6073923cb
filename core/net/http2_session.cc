#include "core/net/http2_session.h"

#include <nghttp2/nghttp2.h>

#include <algorithm>
#include <limits>
#include <utility>
#include <vector>

#include "absl/container/inlined_vector.h"
#include "absl/strings/escaping.h"
#include "absl/strings/str_cat.h"
#include "core/common/rpc/fatal.h"
#include "core/net/block_pool.h"
#include "core/net/client_frames.h"
#include "core/net/http2_memory.h"
#include "core/net/loop_clock.h"
#include "core/net/send_buffer.h"

namespace varnic::net {
namespace {

// A header block so many times larger than it may be is not even counted to its end.
constexpr std::size_t kHopelesslyLarge = 4;

// What has come at once is answered after so many bytes, some dozens of small calls, and then after
// twice as many, and so on: the peer reads the first answers while the others are made, large
// messages stay in one piece, and there are few writes.
constexpr std::size_t kFirstStepBytes = 4 << 10;

// nghttp2 copies names and values that are not constant, so views are enough.
class NameValues {
 public:
  NameValues(absl::Span<const HeaderField> headers, Http2Session::HeaderText text) {
    const auto flags =
        static_cast<uint8_t>(text == Http2Session::HeaderText::kConstant
                                 ? NGHTTP2_NV_FLAG_NO_COPY_NAME | NGHTTP2_NV_FLAG_NO_COPY_VALUE
                                 : NGHTTP2_NV_FLAG_NONE);
    for (const HeaderField& header : headers) {
      fields_.push_back({Bytes(header.name), Bytes(header.value), header.name.size(),
                         header.value.size(), flags});
    }
  }

  const nghttp2_nv* data() const { return fields_.data(); }
  std::size_t size() const { return fields_.size(); }

 private:
  static uint8_t* Bytes(std::string_view text) {
    return reinterpret_cast<uint8_t*>(const_cast<char*>(text.data()));
  }

  absl::InlinedVector<nghttp2_nv, 16> fields_;
};

// The trailers of a stream, until what stands before them is sent.
class Trailers {
 public:
  void Set(absl::Span<const HeaderField> fields, Http2Session::HeaderText text) {
    text_ = text;
    fields_.assign(fields.begin(), fields.end());
    if (text == Http2Session::HeaderText::kCallers) CopyText();
  }

  bool empty() const { return fields_.empty(); }
  NameValues name_values() const { return NameValues(fields_, text_); }

 private:
  void CopyText() {
    std::size_t size = 0;
    for (const HeaderField& field : fields_) size += field.name.size() + field.value.size();
    copy_.reserve(size);  // Views into it stay valid.
    for (HeaderField& field : fields_) field = {Copy(field.name), Copy(field.value)};
  }
  std::string_view Copy(std::string_view text) {
    const std::size_t begin = copy_.size();
    copy_.append(text);
    return std::string_view(copy_).substr(begin);
  }

  absl::InlinedVector<HeaderField, 1> fields_;
  Http2Session::HeaderText text_ = Http2Session::HeaderText::kCallers;
  std::string copy_;
};

// What nghttp2 reports here is either our own bug or a lack of memory.
void CheckOk(int nghttp2_result) {
  VARNIC_CHECK(nghttp2_result == 0);
}

// How much of a peer's explanation is worth repeating.
constexpr std::size_t kMaxQuotedBytes = 128;

std::string Describe(const nghttp2_goaway& goaway) {
  const std::string text(reinterpret_cast<const char*>(goaway.opaque_data),
                         std::min(goaway.opaque_data_len, kMaxQuotedBytes));
  return absl::StrCat("HTTP/2 error code ", goaway.error_code, text.empty() ? "" : ": ",
                      absl::CHexEscape(text));
}

// nghttp2 has some of the limits itself. Here it has them as a second wall behind the guard, which
// counts what it ends, and ends it with a reason.
void SetFloodLimits(const FloodLimits& limits, nghttp2_option* options) {
  constexpr uint64_t kAnyNumber = std::numeric_limits<uint32_t>::max();
  nghttp2_option_set_stream_reset_rate_limit(options, kAnyNumber, kAnyNumber);
  nghttp2_option_set_max_outbound_ack(options, kAnyNumber);
  nghttp2_option_set_max_continuations(options, limits.continuations);
  nghttp2_option_set_max_settings(options, limits.settings_entries);
}

Http2Error ErrorOf(ProtocolFault fault) {
  switch (fault) {
    case ProtocolFault::kFrameTooLarge:
      return Http2Error::kFrameSizeError;
    case ProtocolFault::kStreamEnded:
      return Http2Error::kStreamClosed;
    case ProtocolFault::kStreamLeftOut:
      break;
  }
  return Http2Error::kProtocolError;
}

bool EndsStream(const nghttp2_frame& frame) {
  return (frame.hd.flags & NGHTTP2_FLAG_END_STREAM) != 0 &&
         (frame.hd.type == NGHTTP2_DATA || frame.hd.type == NGHTTP2_HEADERS);
}

}  // namespace

// What nghttp2 does about the queue of a stream.
enum class Reading {
  kNone,      // Nothing, until data is submitted.
  kActive,    // It asks for data as soon as it can send some.
  kDeferred,  // It has asked in vain, and waits to be told of more.
  kLeaving,   // It has all there was, and does nothing more once that is sent.
};

struct Http2Session::Stream : Pooled {
  std::unique_ptr<Handler> handler;
  SendBuffer queue;
  std::uint64_t sent = 0;  // Bytes that stood in the queue.
  bool end_after_queue = false;
  bool local_ended = false;
  bool remote_ended = false;
  bool reset_here = false;  // For reasons of this end's own.
  bool too_large = false;   // The last header block of the peer was, and was answered.
  Reading reading = Reading::kNone;
  Trailers trailers;
};

struct Http2Session::Callbacks {
  static Http2Session& Self(void* user_data) { return *static_cast<Http2Session*>(user_data); }

  static int OnBeginHeaders(nghttp2_session* /*session*/, const nghttp2_frame* frame,
                            void* user_data) {
    Http2Session& self = Self(user_data);
    Incoming(self, *frame).Begin();
    if (frame->headers.cat == NGHTTP2_HCAT_REQUEST) {
      self.Add(frame->hd.stream_id, std::make_unique<Stream>());
      self.last_opened_ = frame->hd.stream_id;
      ++self.activity_.streams_opened;
    }
    return 0;
  }

  // Trailers are mostly like trailers before them, and not like what began their stream.
  static ReceivedHeaders& Incoming(Http2Session& self, const nghttp2_frame& frame) {
    return frame.headers.cat == NGHTTP2_HCAT_HEADERS ? self.incoming_trailers_
                                                     : self.incoming_heads_;
  }

  static int OnHeader(nghttp2_session* session, const nghttp2_frame* frame, nghttp2_rcbuf* name,
                      nghttp2_rcbuf* value, uint8_t /*flags*/, void* user_data) {
    Http2Session& self = Self(user_data);
    ReceivedHeaders& block = Incoming(self, *frame);
    block.Add(name, value);
    const std::size_t limit = self.options_.max_header_list_bytes;
    if (block.bytes() <= limit) return 0;
    if (self.role_ == Role::kServer && block.bytes() <= kHopelesslyLarge * limit) return 0;
    SubmitReset(session, frame->hd.stream_id, Http2Error::kEnhanceYourCalm);
    return NGHTTP2_ERR_TEMPORAL_CALLBACK_FAILURE;  // Ignores the rest of the block.
  }

  static int OnDataChunk(nghttp2_session* /*session*/, uint8_t /*flags*/, int32_t stream_id,
                         const uint8_t* data, size_t size, void* user_data) {
    Http2Session& self = Self(user_data);
    Stream* stream = self.Find(stream_id);
    if (stream != nullptr && stream->handler != nullptr && !self.broken_rule_.has_value()) {
      stream->handler->OnData({reinterpret_cast<const char*>(data), size});
    }
    return 0;
  }

  static int OnFrame(nghttp2_session* /*session*/, const nghttp2_frame* frame, void* user_data) {
    Http2Session& self = Self(user_data);
    if (self.broken_rule_.has_value()) return 0;  // By an earlier frame of those that came at once.
    if (frame->hd.type == NGHTTP2_GOAWAY) {
      if (frame->goaway.error_code != NGHTTP2_NO_ERROR) {
        self.failure_ = absl::UnavailableError(
            absl::StrCat("the peer ended the connection with ", Describe(frame->goaway)));
      }
      self.OnGoaway(frame->goaway.last_stream_id);
      return 0;
    }
    const bool acknowledges = (frame->hd.flags & NGHTTP2_FLAG_ACK) != 0;
    if (frame->hd.type == NGHTTP2_SETTINGS && !acknowledges) {
      self.activity_.greeted = true;
      self.SubmitWaiting();
    }
    if (frame->hd.type == NGHTTP2_PING && !acknowledges) self.visitor_.OnPing();
    Stream* stream = self.Find(frame->hd.stream_id);
    if (stream == nullptr) return 0;
    if (frame->hd.type == NGHTTP2_HEADERS) {
      self.OnHeaderBlock(frame->hd.stream_id, *stream, Incoming(self, *frame));
    }
    if (EndsStream(*frame)) {
      stream->remote_ended = true;
      if (stream->handler != nullptr) stream->handler->OnRemoteEnd();
      // Nobody is there to read the rest of the request.
      if (self.role_ == Role::kClient && !stream->local_ended) {
        self.Reset(frame->hd.stream_id, Http2Error::kNoError);
      }
    }
    return 0;
  }

  // A server that has answered does not want the rest of the request, and says so (RFC 9113,
  // section 8.1); otherwise the stream would count against the peer's limit until it sent the rest.
  static int OnFrameSent(nghttp2_session* session, const nghttp2_frame* frame, void* user_data) {
    Http2Session& self = Self(user_data);
    const bool is_data = frame->hd.type == NGHTTP2_DATA;
    if (!is_data && frame->hd.type != NGHTTP2_HEADERS) return OnControlFrameSent(self, *frame);
    ++self.activity_.stream_frames_sent;
    if (is_data && self.guards_ != nullptr) self.guards_->floods().OnDataSent();
    const bool ends_stream = (frame->hd.flags & NGHTTP2_FLAG_END_STREAM) != 0;
    if (!is_data && !ends_stream) return 0;
    Stream* stream = self.Find(frame->hd.stream_id);
    if (stream == nullptr) return 0;
    if (is_data) OnDataSent(self, frame->hd.stream_id, *stream);
    if (!ends_stream) return 0;
    if (stream->too_large) self.EndIfBroken(self.guards_->floods().OnFault(LoopClock::now()));
    stream->local_ended = true;
    if (self.role_ == Role::kServer && !stream->remote_ended) {
      SubmitReset(session, frame->hd.stream_id, Http2Error::kNoError);
    }
    return 0;
  }

  // More may have come while the last piece was on its way.
  static void OnDataSent(Http2Session& self, StreamId stream_id, Stream& stream) {
    if (stream.reading != Reading::kLeaving) return;
    stream.reading = Reading::kNone;
    if (!stream.queue.empty() || stream.end_after_queue) self.SendWaiting(stream_id, stream);
  }

  static int OnControlFrameSent(Http2Session& self, const nghttp2_frame& frame) {
    if (frame.hd.type == NGHTTP2_GOAWAY && frame.goaway.error_code != NGHTTP2_NO_ERROR) {
      OnErrorSent(self, frame.goaway);
    }
    if (frame.hd.type == NGHTTP2_WINDOW_UPDATE && frame.hd.stream_id != 0) {
      ++self.activity_.stream_frames_sent;
    }
    if (frame.hd.type == NGHTTP2_RST_STREAM && self.guards_ != nullptr) OnResetSent(self, frame);
    return 0;
  }

  // The session itself has found a fault, or a rule was broken.
  static void OnErrorSent(Http2Session& self, const nghttp2_goaway& goaway) {
    if (self.broken_rule_.has_value()) {
      self.told_rule_ = true;
    } else {
      self.failure_ = absl::InvalidArgumentError(
          absl::StrCat("the peer broke the protocol: ", Describe(goaway)));
    }
  }

  // nghttp2 makes resets of its own for what the peer does wrong, none of them with NO_ERROR.
  static void OnResetSent(Http2Session& self, const nghttp2_frame& frame) {
    const Stream* stream = self.Find(frame.hd.stream_id);
    const bool wanted = frame.rst_stream.error_code == NGHTTP2_NO_ERROR ||
                        (stream != nullptr && stream->reset_here);
    self.EndIfBroken(self.guards_->floods().OnResetSent(/*for_fault=*/!wanted, LoopClock::now()));
  }

  // A header block that nghttp2 finds too large: without an answer its stream would never end, and
  // a request would look as if the peer had refused it. Other requests that it does not send, it
  // closes itself.
  static int OnFrameNotSent(nghttp2_session* session, const nghttp2_frame* frame, int error,
                            void* user_data) {
    Http2Session& self = Self(user_data);
    if (frame->hd.type != NGHTTP2_HEADERS) return 0;
    if (frame->headers.cat == NGHTTP2_HCAT_REQUEST) {
      if (error == NGHTTP2_ERR_FRAME_SIZE_ERROR) {
        self.Close(frame->hd.stream_id, Http2Error::kInternalError);
      }
    } else if (self.Find(frame->hd.stream_id) != nullptr) {
      SubmitReset(session, frame->hd.stream_id, Http2Error::kInternalError);
    }
    return 0;
  }

  static int OnStreamClose(nghttp2_session* /*session*/, int32_t stream_id, uint32_t error_code,
                           void* user_data) {
    Self(user_data).Close(stream_id, static_cast<Http2Error>(error_code));
    return 0;
  }

  static ssize_t ReadData(nghttp2_session* session, int32_t stream_id, uint8_t* buffer, size_t size,
                          uint32_t* flags, nghttp2_data_source* source, void* user_data) {
    Stream& stream = *static_cast<Stream*>(source->ptr);
    const std::size_t taken = stream.queue.Take(reinterpret_cast<char*>(buffer), size);
    Self(user_data).CountSent(stream, taken);
    if (stream.queue.empty() && !stream.end_after_queue && stream.handler != nullptr) {
      stream.handler->OnSendQueueEmpty();
    }
    if (!stream.queue.empty()) return static_cast<ssize_t>(taken);
    if (taken == 0 && !stream.end_after_queue) {
      stream.reading = Reading::kDeferred;
      return NGHTTP2_ERR_DEFERRED;
    }
    // That nghttp2 asks again, in vain, would cost as much as the frame.
    stream.reading = Reading::kLeaving;
    *flags |= NGHTTP2_DATA_FLAG_EOF;
    const bool ends_here = std::exchange(stream.end_after_queue, false);
    if (!ends_here || !stream.trailers.empty()) *flags |= NGHTTP2_DATA_FLAG_NO_END_STREAM;
    if (ends_here && !stream.trailers.empty()) SubmitTrailers(session, stream_id, stream);
    return static_cast<ssize_t>(taken);
  }

  static void SubmitTrailers(nghttp2_session* session, StreamId stream_id, const Stream& stream) {
    const NameValues trailers = stream.trailers.name_values();
    CheckOk(nghttp2_submit_trailer(session, stream_id, trailers.data(), trailers.size()));
  }

  static void SubmitReset(nghttp2_session* session, StreamId stream_id, Http2Error error) {
    CheckOk(nghttp2_submit_rst_stream(session, NGHTTP2_FLAG_NONE, stream_id,
                                      static_cast<uint32_t>(error)));
  }

  static nghttp2_data_provider Provider(Stream& stream) {
    nghttp2_data_provider provider;
    provider.source.ptr = &stream;
    provider.read_callback = ReadData;
    return provider;
  }
};

void Http2Session::SessionDeleter::operator()(nghttp2_session* session) const {
  nghttp2_session_del(session);
}

Http2Session::Http2Session(Role role, const Http2Options& options, Visitor& visitor)
    : role_(role),
      options_(options),
      visitor_(visitor),
      incoming_heads_(options.max_header_list_bytes),
      incoming_trailers_(options.max_header_list_bytes) {
  if (role == Role::kServer) {
    guards_ = std::make_unique<ClientFrames>(options.floods, options.max_concurrent_streams,
                                             options.edge_counters);
  }
  nghttp2_session_callbacks* callbacks;
  CheckOk(nghttp2_session_callbacks_new(&callbacks));
  nghttp2_session_callbacks_set_on_begin_headers_callback(callbacks, Callbacks::OnBeginHeaders);
  nghttp2_session_callbacks_set_on_header_callback2(callbacks, Callbacks::OnHeader);
  nghttp2_session_callbacks_set_on_data_chunk_recv_callback(callbacks, Callbacks::OnDataChunk);
  nghttp2_session_callbacks_set_on_frame_recv_callback(callbacks, Callbacks::OnFrame);
  nghttp2_session_callbacks_set_on_frame_send_callback(callbacks, Callbacks::OnFrameSent);
  nghttp2_session_callbacks_set_on_frame_not_send_callback(callbacks, Callbacks::OnFrameNotSent);
  nghttp2_session_callbacks_set_on_stream_close_callback(callbacks, Callbacks::OnStreamClose);

  nghttp2_option* nghttp2_options;
  CheckOk(nghttp2_option_new(&nghttp2_options));
  nghttp2_option_set_no_closed_streams(nghttp2_options, 1);
  // Until the server's settings come, more than one stream may be more than it takes.
  nghttp2_option_set_peer_max_concurrent_streams(nghttp2_options, 1);
  if (role == Role::kServer) SetFloodLimits(options.floods, nghttp2_options);

  nghttp2_mem memory = Http2Memory();
  nghttp2_session* session;
  CheckOk(role == Role::kServer
              ? nghttp2_session_server_new3(&session, callbacks, this, nghttp2_options, &memory)
              : nghttp2_session_client_new3(&session, callbacks, this, nghttp2_options, &memory));
  session_.reset(session);
  nghttp2_option_del(nghttp2_options);
  nghttp2_session_callbacks_del(callbacks);
  Greet();
}

// The settings that this end begins the connection with. RFC 7540's priorities stay on, although
// nobody sets any: without them nghttp2 serves a stream only when older ones have nothing to send,
// and one busy stream would starve the others.
void Http2Session::Greet() {
  absl::InlinedVector<nghttp2_settings_entry, 4> settings = {
      {NGHTTP2_SETTINGS_INITIAL_WINDOW_SIZE, options_.stream_window_bytes},
      {NGHTTP2_SETTINGS_MAX_HEADER_LIST_SIZE, options_.max_header_list_bytes},
  };
  if (role_ == Role::kServer) {
    settings.push_back({NGHTTP2_SETTINGS_MAX_CONCURRENT_STREAMS, options_.max_concurrent_streams});
  } else {
    settings.push_back({NGHTTP2_SETTINGS_ENABLE_PUSH, 0});
  }
  CheckOk(
      nghttp2_submit_settings(session_.get(), NGHTTP2_FLAG_NONE, settings.data(), settings.size()));
  CheckOk(nghttp2_session_set_local_window_size(
      session_.get(), NGHTTP2_FLAG_NONE, /*stream_id=*/0,
      static_cast<int32_t>(options_.connection_window_bytes)));
}

Http2Session::~Http2Session() = default;

absl::Status Http2Session::ProcessBytes(std::string_view bytes) {
  if (closed_) return absl::UnavailableError("the connection is closed");
  if (broken_rule_.has_value()) return absl::OkStatus();
  if (guards_ == nullptr) return Receive(bytes);
  input_time_ = LoopClock::now();
  const ClientFrames::Findings findings = guards_->Inspect(
      bytes, input_time_, [this](StreamId stream_id) { return IsAnswered(stream_id); });
  if (findings.broken_rule.has_value()) {
    EndFor(*findings.broken_rule);
    return absl::OkStatus();
  }
  const absl::Status status = Receive(bytes.substr(0, findings.sound_bytes));
  return status.ok() && findings.fault.has_value() ? EndForFault(*findings.fault) : status;
}

absl::Status Http2Session::EndForFault(ProtocolFault fault) {
  SendGoaway(ErrorOf(fault), ToString(fault));
  return absl::InvalidArgumentError(
      absl::StrCat("the peer broke the protocol: ", std::string(ToString(fault))));
}

absl::Status Http2Session::Receive(std::string_view bytes) {
  for (std::size_t step = kFirstStepBytes; bytes.size() > step; step *= 2) {
    const absl::Status status = ReceiveStep(bytes.substr(0, step));
    if (!status.ok() || broken_rule_.has_value()) return status;
    bytes.remove_prefix(step);
    if (output_announced_) visitor_.OnStep();
  }
  return ReceiveStep(bytes);
}

absl::Status Http2Session::ReceiveStep(std::string_view bytes) {
  const ssize_t result = nghttp2_session_mem_recv(
      session_.get(), reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  if (result >= 0) return absl::OkStatus();
  if (result == NGHTTP2_ERR_BAD_CLIENT_MAGIC) {
    return absl::InvalidArgumentError("the peer does not speak HTTP/2");
  }
  return absl::InvalidArgumentError(
      absl::StrCat("HTTP/2: ", nghttp2_strerror(static_cast<int>(result))));
}

void Http2Session::TakeOutput(std::size_t limit, std::string& output) {
  while (!closed_ && !told_rule_ && output.size() < limit) {
    const uint8_t* data = nullptr;
    const ssize_t size = nghttp2_session_mem_send(session_.get(), &data);
    if (size <= 0) break;
    output.append(reinterpret_cast<const char*>(data), static_cast<std::size_t>(size));
  }
  // At the end: what a handler has submitted meanwhile is taken already, or waits for the peer.
  output_announced_ = false;
}

void Http2Session::OnOutputStuck() {
  if (guards_ == nullptr || closed_) return;
  EndIfBroken(guards_->floods().OnWaiting(nghttp2_session_get_outbound_queue_size(session_.get())));
}

void Http2Session::EndFor(EdgeRule rule) {
  if (closed_ || broken_rule_.has_value()) return;
  if (options_.edge_counters != nullptr) options_.edge_counters->CountEnd(rule);
  if (rule == EdgeRule::kIdle) return SendGoaway(Http2Error::kNoError, RuleName(rule));
  broken_rule_ = rule;
  failure_ = absl::ResourceExhaustedError(
      absl::StrCat(std::string(RuleName(rule)), ": the peer does not keep to the limits"));
  SendGoaway(Http2Error::kEnhanceYourCalm, RuleName(rule));
}

void Http2Session::EndIfBroken(std::optional<EdgeRule> rule) {
  if (rule.has_value()) EndFor(*rule);
}

bool Http2Session::IsFinished() const {
  return closed_ || told_rule_ ||
         (nghttp2_session_want_read(session_.get()) == 0 &&
          nghttp2_session_want_write(session_.get()) == 0);
}

StreamId Http2Session::OpenStream(absl::Span<const HeaderField> headers,
                                  std::unique_ptr<Handler> handler) {
  if (closed_ || nghttp2_session_check_request_allowed(session_.get()) == 0) return -1;
  auto stream = std::make_unique<Stream>();
  stream->handler = std::move(handler);
  if (next_id_ > std::numeric_limits<StreamId>::max() - 2) return -1;
  const StreamId stream_id = std::exchange(next_id_, next_id_ + 2);
  stream->reading = Reading::kActive;
  const bool waits = !waiting_.empty() || !HasSlot();
  Stream& opened = Add(stream_id, std::move(stream));
  ++activity_.streams_opened;
  if (!waits) {
    SubmitRequest(stream_id, opened, headers);
    return stream_id;
  }
  HeaderList& request = waiting_[stream_id];
  for (const HeaderField& header : headers) request.Add(header.name, header.value);
  return stream_id;
}

// Whether the peer takes one more stream now.
bool Http2Session::HasSlot() const {
  return streams_.size() - waiting_.size() <
         nghttp2_session_get_remote_settings(session_.get(),
                                             NGHTTP2_SETTINGS_MAX_CONCURRENT_STREAMS);
}

void Http2Session::SubmitRequest(StreamId stream_id, Stream& stream,
                                 absl::Span<const HeaderField> headers) {
  const NameValues fields(headers, HeaderText::kCallers);
  // With the data: it cannot be submitted later to a request that has not been sent.
  const nghttp2_data_provider provider = Callbacks::Provider(stream);
  // Ids of requests that were never sent are left out.
  CheckOk(nghttp2_session_set_next_stream_id(session_.get(), stream_id));
  const StreamId submitted = nghttp2_submit_request(session_.get(), /*pri_spec=*/nullptr,
                                                    fields.data(), fields.size(), &provider,
                                                    /*stream_user_data=*/nullptr);
  VARNIC_CHECK(submitted == stream_id);
  AnnounceOutput();
}

void Http2Session::SubmitWaiting() {
  while (!closed_ && !waiting_.empty() && HasSlot() &&
         nghttp2_session_check_request_allowed(session_.get()) != 0) {
    const auto next = waiting_.extract(waiting_.begin());
    absl::InlinedVector<HeaderField, 16> headers;
    for (std::size_t i = 0; i < next.mapped().size(); ++i) headers.push_back(next.mapped()[i]);
    SubmitRequest(next.key(), *streams_.at(next.key()), headers);
  }
}

void Http2Session::SendHeaders(StreamId stream_id, absl::Span<const HeaderField> headers,
                               bool end_stream, HeaderText text) {
  Stream* stream = Find(stream_id);
  if (stream == nullptr) return;
  const NameValues fields(headers, text);
  const int result = nghttp2_submit_headers(
      session_.get(), end_stream ? NGHTTP2_FLAG_END_STREAM : NGHTTP2_FLAG_NONE, stream_id,
      /*pri_spec=*/nullptr, fields.data(), fields.size(), /*stream_user_data=*/nullptr);
  CheckOk(result);
  AnnounceOutput();
}

void Http2Session::SendData(StreamId stream_id, std::string bytes, bool end_stream) {
  Stream* stream = Find(stream_id);
  if (stream == nullptr) return;
  activity_.bytes_queued += bytes.size();
  stream->queue.Append(std::move(bytes));
  stream->end_after_queue = end_stream;
  SendWaiting(stream_id, *stream);
}

void Http2Session::SendCopy(StreamId stream_id, std::string_view bytes) {
  Stream* stream = Find(stream_id);
  if (stream == nullptr) return;
  activity_.bytes_queued += bytes.size();
  stream->queue.AppendCopy(bytes);
  SendWaiting(stream_id, *stream);
}

void Http2Session::SendSharedData(StreamId stream_id, std::string head,
                                  std::shared_ptr<const std::string> bytes) {
  Stream* stream = Find(stream_id);
  if (stream == nullptr) return;
  activity_.bytes_queued += head.size() + bytes->size();
  stream->queue.Append(std::move(head));
  stream->queue.AppendShared(std::move(bytes));
  SendWaiting(stream_id, *stream);
}

std::size_t Http2Session::QueuedBytes(StreamId stream_id) const {
  const Stream* stream = Find(stream_id);
  return stream == nullptr ? 0 : stream->queue.bytes();
}

void Http2Session::SendTrailers(StreamId stream_id, absl::Span<const HeaderField> headers,
                                HeaderText text) {
  Stream* stream = Find(stream_id);
  if (stream == nullptr) return;
  stream->trailers.Set(headers, text);
  if (stream->reading == Reading::kNone) {
    Callbacks::SubmitTrailers(session_.get(), stream_id, *stream);
    return AnnounceOutput();
  }
  stream->end_after_queue = true;
  SendWaiting(stream_id, *stream);
}

void Http2Session::Reset(StreamId stream_id, Http2Error error) {
  Stream* stream = Find(stream_id);
  if (stream == nullptr) return;
  if (waiting_.count(stream_id) > 0) return Close(stream_id, error);
  activity_.bytes_queued -= stream->queue.bytes();
  stream->queue = SendBuffer();
  stream->end_after_queue = false;
  stream->reset_here = true;
  Callbacks::SubmitReset(session_.get(), stream_id, error);
  AnnounceOutput();
}

void Http2Session::ResetStalled(StreamId stream_id) {
  Stream* stream = Find(stream_id);
  if (stream != nullptr && stream->handler != nullptr) stream->handler->OnStalled();
  Reset(stream_id, Http2Error::kEnhanceYourCalm);
}

void Http2Session::SendGoaway(Http2Error error, std::string_view reason) {
  if (closed_) return;
  CheckOk(nghttp2_submit_goaway(session_.get(), NGHTTP2_FLAG_NONE,
                                nghttp2_session_get_last_proc_stream_id(session_.get()),
                                static_cast<uint32_t>(error),
                                reinterpret_cast<const uint8_t*>(reason.data()), reason.size()));
  AnnounceOutput();
}

void Http2Session::SendPing() {
  if (closed_) return;
  CheckOk(nghttp2_submit_ping(session_.get(), NGHTTP2_FLAG_NONE, /*opaque_data=*/nullptr));
  AnnounceOutput();
}

WaitingOutput Http2Session::FindWaitingOutput() const {
  WaitingOutput output;
  output.sent = activity_.bytes_sent;
  output.queued = activity_.bytes_queued;
  output.window_closed = nghttp2_session_get_remote_window_size(session_.get()) <= 0;
  output.open_streams = streams_.size();
  if (output.queued == 0) return output;
  for (const auto& [stream_id, stream] : streams_) {
    if (stream->queue.empty()) continue;
    const int32_t window = nghttp2_session_get_stream_remote_window_size(session_.get(), stream_id);
    output.streams.push_back({stream_id, stream->sent, stream->queue.bytes(), window == 0});
  }
  return output;
}

void Http2Session::CloseAllStreams() {
  closed_ = true;
  while (!streams_.empty()) Close(streams_.begin()->first, Http2Error::kConnectionLost);
}

Http2Session::Stream* Http2Session::Find(StreamId stream_id) const {
  if (stream_id == found_id_) return found_;
  const auto found = streams_.find(stream_id);
  if (found == streams_.end()) return nullptr;
  found_id_ = stream_id;
  return found_ = found->second.get();
}

Http2Session::Stream& Http2Session::Add(StreamId stream_id, std::unique_ptr<Stream> stream) {
  found_id_ = stream_id;
  found_ = stream.get();
  streams_[stream_id] = std::move(stream);
  return *found_;
}

void Http2Session::OnHeaderBlock(StreamId stream_id, Stream& stream, ReceivedHeaders& block) {
  if (stream.handler == nullptr) {
    stream.handler = visitor_.OnNewStream(stream_id);
    if (stream.handler == nullptr) {
      return Callbacks::SubmitReset(session_.get(), stream_id, Http2Error::kRefusedStream);
    }
  }
  if (block.bytes() > options_.max_header_list_bytes) {
    return OnLargeHeaderBlock(stream_id, stream, block);
  }
  stream.handler->OnHeaders(block.End());
}

void Http2Session::OnLargeHeaderBlock(StreamId stream_id, Stream& stream, ReceivedHeaders& block) {
  block.Clear();
  stream.too_large = true;
  if (stream.handler->OnHeadersTooLarge(options_.max_header_list_bytes)) return;
  stream.too_large = false;
  Callbacks::SubmitReset(session_.get(), stream_id, Http2Error::kEnhanceYourCalm);
}

// Or was reset, or refused.
bool Http2Session::IsAnswered(StreamId stream_id) const {
  if (stream_id > last_opened_) return false;
  const Stream* stream = Find(stream_id);
  return stream == nullptr || stream->local_ended;
}

// Ends the streams that get no answer: those that the peer says it did not process, and those that
// it has not heard of, which nghttp2 would keep until an older stream makes room for them.
void Http2Session::OnGoaway(StreamId last_processed) {
  visitor_.OnGoaway();
  if (role_ == Role::kServer) return;
  std::vector<StreamId> unprocessed;
  for (const auto& [stream_id, stream] : streams_) {
    const bool sent = nghttp2_session_find_stream(session_.get(), stream_id) != nullptr;
    if (!sent || stream_id > last_processed) unprocessed.push_back(stream_id);
  }
  std::sort(unprocessed.begin(), unprocessed.end());
  for (const StreamId stream_id : unprocessed) Close(stream_id, Http2Error::kRefusedStream);
}

void Http2Session::SendWaiting(StreamId stream_id, Stream& stream) {
  AnnounceOutput();
  int result = 0;
  if (stream.reading == Reading::kDeferred) {
    result = nghttp2_session_resume_data(session_.get(), stream_id);
  } else if (stream.reading == Reading::kNone) {
    const nghttp2_data_provider provider = Callbacks::Provider(stream);
    result = nghttp2_submit_data(session_.get(), NGHTTP2_FLAG_END_STREAM, stream_id, &provider);
  } else {
    return;
  }
  stream.reading = Reading::kActive;
  // Not an error when the stream is being reset.
  VARNIC_CHECK(result == 0 || result == NGHTTP2_ERR_INVALID_ARGUMENT ||
               result == NGHTTP2_ERR_STREAM_CLOSED);
}

void Http2Session::Close(StreamId stream_id, Http2Error error) {
  const auto found = streams_.find(stream_id);
  if (found == streams_.end()) return;
  const std::unique_ptr<Stream> stream = std::move(found->second);
  streams_.erase(found);
  waiting_.erase(stream_id);
  found_id_ = 0;
  found_ = nullptr;
  activity_.bytes_queued -= stream->queue.bytes();
  if (stream->handler != nullptr) stream->handler->OnClosed(error);
  SubmitWaiting();
}

void Http2Session::CountSent(Stream& stream, std::size_t bytes) {
  stream.sent += bytes;
  activity_.bytes_sent += bytes;
  activity_.bytes_queued -= bytes;
}

void Http2Session::AnnounceOutput() {
  if (!std::exchange(output_announced_, true)) visitor_.OnOutputPending();
}

}  // namespace varnic::net
