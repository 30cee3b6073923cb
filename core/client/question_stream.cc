#include "core/client/question_stream.h"

#include <utility>
#include <vector>

#include "core/common/rpc/fatal.h"
#include "core/net/utf8_text.h"

namespace varnic {

using ::rpc::transport::StreamMessage;

OpenQuestion::OpenQuestion(QuestionStream& stream, std::int64_t call_id, const ProfileId& key)
    : loop_(stream.loop_), stream_(&stream), call_id_(call_id), key_(key) {}

OpenQuestion::~OpenQuestion() {
  if (!used_) Fail("The client dropped the question");
}

void OpenQuestion::OnWithdrawn(std::function<void()> run) {
  if (used_) return;
  on_withdrawn_ = std::move(run);
  if (withdrawn()) PostOnWithdrawn();
}

bool OpenQuestion::Answer(std::string payload) {
  if (!Use()) return false;
  Send(/*failed=*/false, std::move(payload));
  return true;
}

bool OpenQuestion::Fail(const std::string& error) {
  if (!Use()) return false;
  // A text that is no UTF-8 would cost the stream.
  const std::string text =
      error.empty() ? "The client could not answer" : net::EscapeInvalidUtf8(error);
  Send(/*failed=*/true, stream_->make_failure_(key_, text));
  return true;
}

bool OpenQuestion::Use() {
  VARNIC_CHECK(!std::exchange(used_, true));  // Answer() and Fail() together: once.
  on_withdrawn_ = nullptr;
  if (withdrawn()) return false;
  VARNIC_CHECK(loop_.IsLoopThread());
  return true;
}

void OpenQuestion::Send(bool failed, std::string payload) {
  state_ = State::kAnswered;
  QuestionStream& stream = *std::exchange(stream_, nullptr);
  stream.open_.erase(call_id_);
  stream.SendAnswer(call_id_, failed, std::move(payload));
}

void OpenQuestion::Withdraw() {
  state_ = State::kWithdrawn;
  stream_ = nullptr;
  PostOnWithdrawn();
}

// Later: who withdraws is in the middle of something.
void OpenQuestion::PostOnWithdrawn() {
  if (on_withdrawn_ == nullptr) return;
  loop_.Post(lifetime_.Guard([this] {
    // What there is then; it may destroy this.
    const std::function<void()> run = std::exchange(on_withdrawn_, nullptr);
    if (run != nullptr) run();
  }));
}

// The lambda owns `on_message`: the stream keeps it while it runs, even if that destroys this.
QuestionStream::QuestionStream(Client& client, const google::protobuf::MethodDescriptor& method,
                               SubscriptionStream::MakePayload make_payload,
                               MakeFailure make_failure, OnMessage on_message,
                               StreamListeners listeners)
    : loop_(client.loop()),
      max_open_(client.options().max_open_questions),
      make_failure_(make_failure),
      stream_(
          client, method, make_payload,
          [this, on_message = std::move(on_message)](const StreamMessage& envelope) {
            if (envelope.kind() != StreamMessage::ERROR) return on_message(*this, envelope);
            Withdraw(envelope.call_id());
            return absl::OkStatus();
          },
          [this] { WithdrawAll(); }, std::move(listeners)) {}

QuestionStream::~QuestionStream() {
  WithdrawAll();
}

void QuestionStream::Unsubscribe(const ProfileId& key) {
  stream_.Unsubscribe(key);
  std::vector<std::int64_t> of_key;
  for (const auto& [call_id, question] : open_) {
    if (question->key_.value() == key.value()) of_key.push_back(call_id);
  }
  for (const std::int64_t call_id : of_key) Withdraw(call_id);
}

std::unique_ptr<OpenQuestion> QuestionStream::Open(std::int64_t call_id, const ProfileId& key) {
  Withdraw(call_id);
  const char* refusal = nullptr;
  // As when it was asked before the server heard of the end of the subscription.
  if (!stream_.IsSubscribed(key)) refusal = "The client does not answer for this profile";
  if (open_.size() >= max_open_) refusal = "The client has too many open questions";
  if (refusal != nullptr) {
    Refuse(call_id, key, refusal);
    return nullptr;
  }
  std::unique_ptr<OpenQuestion> question(new OpenQuestion(*this, call_id, key));
  open_[call_id] = question.get();
  return question;
}

void QuestionStream::Refuse(std::int64_t call_id, const ProfileId& key, const std::string& error) {
  Withdraw(call_id);  // A server uses no id twice; should it, the newer question counts.
  SendAnswer(call_id, /*failed=*/true, make_failure_(key, error));
}

// A call id that is not open: the question was answered before the server withdrew it.
void QuestionStream::Withdraw(std::int64_t call_id) {
  const auto found = open_.find(call_id);
  if (found == open_.end()) return;
  OpenQuestion& question = *found->second;
  open_.erase(found);
  question.Withdraw();
}

void QuestionStream::SendAnswer(std::int64_t call_id, bool failed, std::string payload) {
  StreamMessage envelope;
  envelope.set_call_id(call_id);
  if (failed) envelope.set_kind(StreamMessage::ERROR);
  envelope.set_payload(std::move(payload));
  stream_.Send(envelope);
}

void QuestionStream::WithdrawAll() {
  for (const auto& [call_id, question] : std::exchange(open_, {})) question->Withdraw();
}

}  // namespace varnic
