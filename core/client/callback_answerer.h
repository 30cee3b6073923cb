#ifndef CORE_CLIENT_CALLBACK_ANSWERER_H_
#define CORE_CLIENT_CALLBACK_ANSWERER_H_

#include <google/protobuf/descriptor.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "absl/status/status.h"
#include "core/client/client.h"
#include "core/client/question_stream.h"
#include "core/client/stream_listeners.h"
#include "core/client/subscription_stream.h"
#include "core/common/rpc/readable_payload.h"
#include "core/net/utf8_text.h"
#include "rpc/identifiers.pb.h"
#include "rpc/transport/stream_message.pb.h"

namespace varnic {

// One question of the host, and the one right to answer it. Movable, and may be kept for as long as
// it takes; destroyed unanswered, it fails with "The client dropped the question". May outlive its
// answerer, and is withdrawn then. Must not outlive the loop.
//
// Belongs to the client's loop. One that was moved from is only good for destroying, or for being
// assigned to.
template <class Message>
class CallbackQuestion final {
 public:
  using Response = typename Message::Response;

  CallbackQuestion(Message message, std::unique_ptr<OpenQuestion> open)
      : message_(std::move(message)), open_(std::move(open)) {}
  CallbackQuestion(CallbackQuestion&&) noexcept = default;
  CallbackQuestion& operator=(CallbackQuestion&&) noexcept = default;

  const ProfileId& profile_id() const { return message_.profile_id(); }
  const auto& request() const { return message_.request(); }
  const Message& message() const { return message_; }

  // Nobody waits for the answer any more: the host has said so, the stream was lost, the key was
  // unsubscribed, or the answerer is gone.
  bool withdrawn() const { return open_->withdrawn(); }

  // Runs `run` once, on the loop, never inside a call, when the question is withdrawn, or if it is
  // already; not once it is answered (even if in vain) or destroyed. Replaces an earlier one.
  void OnWithdrawn(std::function<void()> run) { open_->OnWithdrawn(std::move(run)); }

  // Exactly one of the two, once. They say whether that was still wanted: false, and without
  // effect, if the question is withdrawn. A response with text that is no UTF-8 cannot be sent:
  // the question fails, and Answer() is false, too. In the text of Fail() such bytes are escaped.
  bool Answer(const Response& response) {
    Message answer;
    *answer.mutable_profile_id() = profile_id();
    *answer.mutable_response() = response;
    std::string payload = answer.SerializeAsString();
    if (IsReadable(answer, payload)) return open_->Answer(std::move(payload));
    open_->Fail("The client's answer has text that is no UTF-8");
    return false;
  }
  bool Fail(const std::string& error) { return open_->Fail(error); }

 private:
  Message message_;
  std::unique_ptr<OpenQuestion> open_;  // Null if it was moved from.
};

// Answers the questions of one callback stream, and comes back by itself after a loss; see
// StreamListeners. Questions that were open then are withdrawn. A question that does not parse
// fails alone, with a warning in the log.
//
// Opens at once. Lives on the client's loop, where its callbacks run; the client must outlive it.
// It may be destroyed inside its own callbacks, and destroying it ends the stream without a word.
template <class Message>
class CallbackAnswerer final {
 public:
  using OnQuestion = std::function<void(CallbackQuestion<Message>)>;

  CallbackAnswerer(Client& client, const google::protobuf::MethodDescriptor& method,
                   OnQuestion on_question, StreamListeners listeners = {})
      : questions_(client, method, MakeControl, MakeFailure, Deliver(std::move(on_question)),
                   std::move(listeners)) {}
  CallbackAnswerer(const CallbackAnswerer&) = delete;
  CallbackAnswerer& operator=(const CallbackAnswerer&) = delete;

  // Answers for this profile from now on, over reconnects too. Nothing happens if it does already.
  void Subscribe(const ProfileId& key) { questions_.Subscribe(key); }
  // The open questions of the profile are withdrawn.
  void Unsubscribe(const ProfileId& key) { questions_.Unsubscribe(key); }

 private:
  static std::string MakeControl(const ProfileId& key, bool subscribe) {
    Message control;
    *control.mutable_profile_id() = key;
    control.set_subscribe(subscribe);
    return control.SerializeAsString();
  }

  static std::string MakeFailure(const ProfileId& key, const std::string& error) {
    Message failure;
    *failure.mutable_profile_id() = key;
    failure.set_error(error);
    return failure.SerializeAsString();
  }

  static QuestionStream::OnMessage Deliver(OnQuestion on_question) {
    return [on_question = std::move(on_question)](QuestionStream& questions,
                                                  const ::rpc::transport::StreamMessage& envelope) {
      Message message;
      if (!message.ParseFromString(envelope.payload())) {
        RefuseUnreadable(questions, envelope.call_id(), message);
        return NotSerialisedError(*Message::descriptor());
      }
      if (!message.error().empty()) {
        questions.Withdraw(envelope.call_id());
        return absl::OkStatus();
      }
      // What is no question may come from a newer host.
      if (!message.has_request()) return absl::OkStatus();
      auto open = questions.Open(envelope.call_id(), message.profile_id());
      if (open != nullptr && on_question != nullptr) {
        on_question(CallbackQuestion<Message>(std::move(message), std::move(open)));
      }
      return absl::OkStatus();
    };
  }

  // `message` is what the parser has left: mostly with the profile, which stands in front.
  static void RefuseUnreadable(QuestionStream& questions, std::int64_t call_id,
                               const Message& message) {
    if (call_id == 0) return;  // No question.
    const bool is_readable = net::IsUtf8(message.profile_id().value());
    questions.Refuse(call_id, is_readable ? message.profile_id() : ProfileId(),
                     "The client cannot read the question");
  }

  QuestionStream questions_;
};

}  // namespace varnic

#endif  // CORE_CLIENT_CALLBACK_ANSWERER_H_
