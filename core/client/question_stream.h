#ifndef CORE_CLIENT_QUESTION_STREAM_H_
#define CORE_CLIENT_QUESTION_STREAM_H_

#include <google/protobuf/descriptor.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "absl/container/flat_hash_map.h"
#include "absl/status/status.h"
#include "core/client/client.h"
#include "core/client/stream_listeners.h"
#include "core/client/subscription_stream.h"
#include "core/net/event_loop.h"
#include "core/net/lifetime.h"
#include "rpc/identifiers.pb.h"
#include "rpc/transport/stream_message.pb.h"

namespace varnic {

class QuestionStream;

// The right to answer one question: what CallbackQuestion is made of. Destroyed unanswered, it
// fails the question. May outlive its stream, not the loop.
class OpenQuestion final {
 public:
  ~OpenQuestion();
  OpenQuestion(const OpenQuestion&) = delete;
  OpenQuestion& operator=(const OpenQuestion&) = delete;

  bool withdrawn() const { return state_ == State::kWithdrawn; }
  void OnWithdrawn(std::function<void()> run);

  // One of the two, once. False, and without effect, if the question is withdrawn.
  bool Answer(std::string payload);
  bool Fail(const std::string& error);

 private:
  friend class QuestionStream;
  enum class State { kOpen, kAnswered, kWithdrawn };

  OpenQuestion(QuestionStream& stream, std::int64_t call_id, const ProfileId& key);

  // Whether the answer is still wanted.
  bool Use();
  void Send(bool failed, std::string payload);
  void Withdraw();
  void PostOnWithdrawn();

  net::EventLoop& loop_;
  QuestionStream* stream_;  // Null once the question is not open any more.
  const std::int64_t call_id_;
  const ProfileId key_;
  State state_ = State::kOpen;
  bool used_ = false;  // One of Answer() and Fail() was called.
  std::function<void()> on_withdrawn_;
  net::Lifetime lifetime_;
};

// A SubscriptionStream on which the server asks: keeps account of what is open. What
// CallbackAnswerer is made of.
//
// Lives on the client's loop; the client outlives it. May be destroyed in its own callbacks;
// questions that are open are withdrawn then.
class QuestionStream {
 public:
  using OnMessage = std::function<absl::Status(QuestionStream& stream,
                                               const ::rpc::transport::StreamMessage& envelope)>;
  // The payload that says that a question of `key` could not be answered.
  using MakeFailure = std::string (*)(const ProfileId& key, const std::string& error);

  // `on_message` gets what is not a withdrawal; see SubscriptionStream::OnEnvelope.
  QuestionStream(Client& client, const google::protobuf::MethodDescriptor& method,
                 SubscriptionStream::MakePayload make_payload, MakeFailure make_failure,
                 OnMessage on_message, StreamListeners listeners);
  QuestionStream(const QuestionStream&) = delete;
  QuestionStream& operator=(const QuestionStream&) = delete;
  ~QuestionStream();

  void Subscribe(const ProfileId& key) { stream_.Subscribe(key); }
  void Unsubscribe(const ProfileId& key);

  // A question has come. Null if it is not to be answered: the server has been told.
  std::unique_ptr<OpenQuestion> Open(std::int64_t call_id, const ProfileId& key);
  // A question has come that cannot be answered: tells the server why, and goes on.
  void Refuse(std::int64_t call_id, const ProfileId& key, const std::string& error);
  // Nobody waits for the answer any more; nothing happens if the question is not open.
  void Withdraw(std::int64_t call_id);

 private:
  friend class OpenQuestion;

  void SendAnswer(std::int64_t call_id, bool failed, std::string payload);
  void WithdrawAll();

  net::EventLoop& loop_;
  const std::size_t max_open_;
  const MakeFailure make_failure_;
  absl::flat_hash_map<std::int64_t, OpenQuestion*> open_;
  SubscriptionStream stream_;
};

}  // namespace varnic

#endif  // CORE_CLIENT_QUESTION_STREAM_H_
