#include "core/client/callback_answerer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "absl/strings/str_cat.h"
#include "core/client/testing/scripted_server.h"
#include "core/client/testing/stream_test.h"
#include "core/net/frame_message.h"
#include "core/net/message_framing.h"
#include "rpc/profile/profile.rpc.h"

namespace varnic {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using testing::Key;
using testing::ScriptedServer;
using ::testing::SizeIs;
using Answerer = CallbackAnswerer<rpc::CanAccessFile>;
using Question = CallbackQuestion<rpc::CanAccessFile>;

rpc::CanAccessFile::Response Allow() {
  rpc::CanAccessFile::Response response;
  response.set_allow(true);
  return response;
}

class CallbackAnswererTest : public testing::StreamTest {
 protected:
  ~CallbackAnswererTest() override {
    questions_.clear();
    answerer_ = nullptr;
  }

  // Answers for profile P: keeps the questions, unless there is something else to do with them.
  void Open(Answerer::OnQuestion on_question = nullptr) {
    if (on_question == nullptr) {
      on_question = [this](Question question) { questions_.push_back(std::move(question)); };
    }
    answerer_ = std::make_unique<Answerer>(*client_, Method("OnCanAccessFile"),
                                           std::move(on_question), Listeners());
    answerer_->Subscribe(Key("P"));
    Settle();
  }
  // A server that has asked one question, which waits in `questions_`.
  void ServeAndAsk() {
    Serve();
    Open();
    Ask();
    ASSERT_THAT(questions_, SizeIs(1));
  }
  CallId Ask(const std::string& key = "P", absl::Duration timeout = absl::InfiniteDuration()) {
    const CallId id = served_->Ask(key, "/etc/hosts", timeout);
    Settle();
    return id;
  }
  Question& question() { return questions_.back(); }
  void RecordWithdrawal() {
    question().OnWithdrawn([this] { heard_.push_back("withdrawn"); });
  }

  std::unique_ptr<Answerer> answerer_;
  std::vector<Question> questions_;
};

TEST_F(CallbackAnswererTest, QuestionIsAnswered) {
  ServeAndAsk();
  EXPECT_EQ(question().profile_id().value(), "P");
  EXPECT_EQ(question().request().path(), "/etc/hosts");
  EXPECT_EQ(question().message().request().path(), "/etc/hosts");

  question().Answer(Allow());
  Settle();

  EXPECT_THAT(served_->ends, ElementsAre("allowed"));
  EXPECT_THAT(heard_, ElementsAre("up"));
}

TEST_F(CallbackAnswererTest, QuestionIsAnsweredInsideTheCallback) {
  Serve();
  Open([](Question question) { question.Answer(Allow()); });

  Ask();

  EXPECT_THAT(served_->ends, ElementsAre("allowed"));
}

TEST_F(CallbackAnswererTest, QuestionsMayBeAnsweredInAnyOrder) {
  Serve();
  Open();
  for (int i = 0; i < 3; ++i) Ask();

  questions_[2].Fail("third");
  questions_[0].Answer(Allow());
  questions_[1].Fail("second");
  Settle();

  EXPECT_THAT(served_->ends, ElementsAre(HasSubstr("ABORTED"), "allowed", HasSubstr("ABORTED")));
}

TEST_F(CallbackAnswererTest, FailureWhoseTextIsEmptyOrNoUtf8IsAFailureLikeAnyOther) {
  for (const char* text : {"", "no file \xff\xc3\x28", "nobody is at the screen"}) {
    Serve();
    Open();
    Ask();

    question().Fail(text);
    Settle();

    EXPECT_THAT(served_->ends, ElementsAre(HasSubstr("ABORTED")));
    EXPECT_EQ(heard_.back(), "up");
    answerer_ = nullptr;
    served_ = nullptr;
    Settle();
  }
}

TEST_F(CallbackAnswererTest, QuestionWithTextThatIsNoUtf8IsNotAskedAndTheNextOneIs) {
  Serve();
  Open([](Question question) { EXPECT_TRUE(question.Answer(Allow())); });

  served_->Ask("P", "/tmp/\xff");
  Settle();
  Ask();

  EXPECT_THAT(served_->ends, ElementsAre(HasSubstr("INVALID_ARGUMENT"), "allowed"));
  EXPECT_THAT(heard_, ElementsAre("up"));
}

TEST_F(CallbackAnswererTest, AnswerWhoseTextIsNoUtf8FailsTheQuestionAlone) {
  Serve();
  CallbackCaller<rpc::Authenticate> caller(served_->server().scheduler());
  std::vector<bool> sent;
  CallbackAnswerer<rpc::Authenticate> answerer(
      *client_, Method("OnAuthenticate"),
      [&](CallbackQuestion<rpc::Authenticate> question) {
        rpc::Authenticate::Response response;
        response.set_username(sent.empty() ? "zo\xeb" : "zoe");
        sent.push_back(question.Answer(response));
      },
      Listeners());
  answerer.Subscribe(Key("P"));
  Settle();

  std::vector<std::string> ends;
  for (int i = 0; i < 2; ++i) {
    caller.Call(
        Key("P"), rpc::Authenticate::Request(),
        [&](const rpc::Authenticate::Response& response) { ends.push_back(response.username()); },
        [&](const absl::Status& status) { ends.push_back(status.ToString()); },
        absl::InfiniteDuration());
    Settle();
  }

  EXPECT_THAT(ends, ElementsAre(HasSubstr("ABORTED"), "zoe"));
  EXPECT_THAT(sent, ElementsAre(false, true));
  EXPECT_THAT(heard_, ElementsAre("up"));
}

TEST_F(CallbackAnswererTest, DroppedQuestionFails) {
  ServeAndAsk();

  questions_.clear();
  Settle();

  EXPECT_THAT(served_->ends, ElementsAre(HasSubstr("ABORTED")));
}

TEST_F(CallbackAnswererTest, QuestionThatNobodyTakesFails) {
  Serve();
  answerer_ = std::make_unique<Answerer>(*client_, Method("OnCanAccessFile"), nullptr);
  answerer_->Subscribe(Key("P"));
  Settle();

  Ask();

  EXPECT_THAT(served_->ends, ElementsAre(HasSubstr("ABORTED")));
}

TEST_F(CallbackAnswererTest, MovedQuestionIsAnsweredOnce) {
  ServeAndAsk();

  Question moved = std::move(question());
  questions_.clear();
  Settle();
  EXPECT_THAT(served_->ends, IsEmpty());

  moved.Answer(Allow());
  Settle();
  EXPECT_THAT(served_->ends, ElementsAre("allowed"));
}

TEST_F(CallbackAnswererTest, QuestionThatIsAssignedOverFails) {
  Serve();
  Open();
  Ask();
  Ask();

  questions_[0] = std::move(questions_[1]);
  Settle();
  EXPECT_THAT(served_->ends, ElementsAre(HasSubstr("ABORTED")));

  questions_[0].Answer(Allow());
  Settle();
  EXPECT_EQ(served_->ends.back(), "allowed");
}

TEST_F(CallbackAnswererTest, HostWithdrawsAQuestion) {
  Serve();
  Open();
  const CallId id = Ask();
  RecordWithdrawal();
  EXPECT_FALSE(question().withdrawn());

  served_->caller().Withdraw(id);
  Settle();

  EXPECT_TRUE(question().withdrawn());
  EXPECT_THAT(heard_, ElementsAre("up", "withdrawn"));
  question().Answer(Allow());
  Settle();
  EXPECT_THAT(heard_, ElementsAre("up", "withdrawn"));
}

TEST_F(CallbackAnswererTest, QuestionWhoseTimeIsUpIsWithdrawn) {
  Serve();
  Open();
  Ask("P", absl::Seconds(30));
  RecordWithdrawal();

  Advance(absl::Seconds(30));

  EXPECT_TRUE(question().withdrawn());
  EXPECT_THAT(heard_, ElementsAre("up", "withdrawn"));
  EXPECT_THAT(served_->ends, ElementsAre(HasSubstr("DEADLINE_EXCEEDED")));
}

TEST_F(CallbackAnswererTest, LossOfTheStreamWithdrawsItsQuestions) {
  ServeAndAsk();
  RecordWithdrawal();

  served_ = nullptr;
  Settle();

  EXPECT_TRUE(question().withdrawn());
  EXPECT_THAT(heard_, ElementsAre("up", "down in 1s", "withdrawn"));
}

TEST_F(CallbackAnswererTest, AnswerToTheServerBeforeDoesNotReachTheNextOne) {
  ServeAndAsk();
  Question old = std::move(question());
  served_ = nullptr;
  Settle();
  Serve();
  Advance(absl::Seconds(10));
  Ask();

  old.Answer(Allow());
  Settle();
  EXPECT_THAT(served_->ends, IsEmpty());

  question().Fail("the second");
  Settle();
  EXPECT_THAT(served_->ends, ElementsAre(HasSubstr("ABORTED")));
}

TEST_F(CallbackAnswererTest, AnswersForItsProfilesAtTheNextServer) {
  Serve();
  Open([](Question question) { question.Answer(Allow()); });
  answerer_->Subscribe(Key("Q"));
  answerer_->Subscribe(Key("R"));
  answerer_->Unsubscribe(Key("R"));
  Settle();

  served_ = nullptr;
  Settle();
  Serve();
  Advance(absl::Seconds(10));
  for (const char* key : {"P", "Q", "R"}) Ask(key);

  EXPECT_THAT(served_->ends, ElementsAre("allowed", "allowed", HasSubstr("NOT_FOUND")));
}

TEST_F(CallbackAnswererTest, UnsubscribingWithdrawsTheQuestionsOfTheKey) {
  ServeAndAsk();
  RecordWithdrawal();
  answerer_->Subscribe(Key("Q"));
  Settle();
  Ask("Q");

  answerer_->Unsubscribe(Key("P"));
  EXPECT_TRUE(questions_[0].withdrawn());
  EXPECT_THAT(heard_, ElementsAre("up"));
  Settle();

  EXPECT_THAT(heard_, ElementsAre("up", "withdrawn"));
  EXPECT_FALSE(questions_[1].withdrawn());
  EXPECT_THAT(served_->ends, ElementsAre(HasSubstr("CANCELLED")));
}

TEST_F(CallbackAnswererTest, QuestionOutlivesItsAnswererWithdrawn) {
  ServeAndAsk();
  RecordWithdrawal();

  answerer_ = nullptr;
  EXPECT_TRUE(question().withdrawn());
  EXPECT_THAT(heard_, ElementsAre("up"));
  Settle();

  EXPECT_THAT(heard_, ElementsAre("up", "withdrawn"));
  EXPECT_EQ(question().request().path(), "/etc/hosts");
  question().Answer(Allow());
  Settle();
  EXPECT_THAT(served_->ends, SizeIs(1));
}

TEST_F(CallbackAnswererTest, QuestionMayOutliveTheClientToo) {
  ServeAndAsk();

  answerer_ = nullptr;
  client_ = nullptr;
  Settle();

  EXPECT_TRUE(question().withdrawn());
  question().Fail("too late");
}

TEST_F(CallbackAnswererTest, WhoAsksLateHearsOfTheWithdrawalLater) {
  ServeAndAsk();
  answerer_ = nullptr;

  RecordWithdrawal();
  EXPECT_THAT(heard_, ElementsAre("up"));
  Settle();

  EXPECT_THAT(heard_, ElementsAre("up", "withdrawn"));
}

TEST_F(CallbackAnswererTest, NobodyHearsOfAWithdrawalWhoseQuestionIsGoneOrAnswered) {
  Serve();
  Open();
  Ask();
  RecordWithdrawal();
  Ask();
  RecordWithdrawal();

  questions_[0].Answer(Allow());
  RecordWithdrawal();
  answerer_ = nullptr;
  questions_.clear();
  Settle();

  EXPECT_THAT(heard_, ElementsAre("up"));
}

TEST_F(CallbackAnswererTest, CallbackThatIsReplacedAfterTheWithdrawalRunsInPlaceOfTheFirst) {
  ServeAndAsk();
  question().OnWithdrawn([this] { heard_.push_back("first"); });
  answerer_ = nullptr;

  RecordWithdrawal();
  Settle();

  EXPECT_THAT(heard_, ElementsAre("up", "withdrawn"));
}

TEST_F(CallbackAnswererTest, AnswerToAWithdrawnQuestionIsToldSoAndTheCallbackIsNot) {
  ServeAndAsk();
  Ask();
  for (Question& open : questions_) {
    open.OnWithdrawn([this] { heard_.push_back("withdrawn"); });
  }
  answerer_ = nullptr;

  EXPECT_FALSE(questions_[0].Answer(Allow()));
  EXPECT_FALSE(questions_[1].Fail("too late"));
  RecordWithdrawal();
  Settle();

  EXPECT_THAT(heard_, ElementsAre("up"));
}

TEST_F(CallbackAnswererTest, WithdrawalMayDestroyTheQuestionAndTheAnswerer) {
  Serve();
  Open();
  const CallId id = Ask();
  question().OnWithdrawn([this] {
    questions_.clear();
    answerer_ = nullptr;
    heard_.push_back("withdrawn");
  });

  served_->caller().Withdraw(id);
  Settle();

  EXPECT_THAT(heard_, ElementsAre("up", "withdrawn"));
  EXPECT_EQ(served_->open_streams(), 0U);
}

TEST_F(CallbackAnswererTest, QuestionMayDestroyTheAnswererAndBeAnsweredInVain) {
  Serve();
  Open([this](Question question) {
    answerer_ = nullptr;
    EXPECT_TRUE(question.withdrawn());
    question.Answer(Allow());
  });
  for (int i = 0; i < 3; ++i) served_->Ask("P", "/etc/hosts");

  Settle();

  EXPECT_EQ(answerer_, nullptr);
  EXPECT_EQ(served_->open_streams(), 0U);
  EXPECT_THAT(served_->ends, SizeIs(3));
}

TEST_F(CallbackAnswererTest, OneQuestionTooManyFailsAtOnceAndTheOthersStay) {
  ClientOptions options = WithoutJitter();
  options.max_open_questions = 2;
  client_ = std::make_unique<Client>(loop_, address_, options);
  Serve();
  Open();
  for (int i = 0; i < 3; ++i) Ask();

  EXPECT_THAT(questions_, SizeIs(2));
  EXPECT_THAT(served_->ends, ElementsAre(HasSubstr("ABORTED")));

  questions_.pop_back();
  Ask();
  EXPECT_THAT(questions_, SizeIs(2));
}

TEST_F(CallbackAnswererTest, ManyQuestionsOfManyProfilesEachGetTheirOwnAnswer) {
  Serve();
  Open([](Question question) {
    rpc::CanAccessFile::Response response;
    response.set_allow(question.profile_id().value() == question.request().path());
    question.Answer(response);
  });
  for (int i = 0; i < 200; ++i) answerer_->Subscribe(Key(absl::StrCat("p", i)));
  Settle();

  for (int i = 0; i < 200; ++i) served_->Ask(absl::StrCat("p", i), absl::StrCat("p", i));
  Settle();

  EXPECT_EQ(served_->ends, std::vector<std::string>(200, "allowed"));
}

using CallbackAnswererDeathTest = CallbackAnswererTest;

TEST_F(CallbackAnswererDeathTest, SecondAnswerIsFatal) {
  ServeAndAsk();
  question().Answer(Allow());

  EXPECT_DEATH(question().Answer(Allow()), "used_");
  EXPECT_DEATH(question().Fail("second"), "used_");
}

// A server that sends what the test says, and that ours would not.
class CallbackAnswererGarbageTest : public CallbackAnswererTest {
 protected:
  void HearFrom(const std::vector<rpc::transport::StreamMessage>& envelopes) {
    server_ = std::make_unique<ScriptedServer>(loop_, address_);
    server_->on_open = [&](net::Http2Session& session, net::StreamId stream_id) {
      ScriptedServer::SendHeaders(session, stream_id);
      for (const auto& envelope : envelopes) {
        session.SendData(stream_id, net::FrameMessage(envelope), /*end_stream=*/false);
      }
    };
    Open();
  }
  static rpc::transport::StreamMessage Envelope(int64_t call_id, const std::string& payload) {
    rpc::transport::StreamMessage envelope;
    envelope.set_call_id(call_id);
    envelope.set_payload(payload);
    return envelope;
  }
  static rpc::transport::StreamMessage AskedAs(int64_t call_id, const std::string& key = "P") {
    rpc::CanAccessFile question;
    *question.mutable_profile_id() = Key(key);
    question.mutable_request()->set_path(absl::StrCat("/", call_id));
    return Envelope(call_id, question.SerializeAsString());
  }
  static rpc::transport::StreamMessage WithdrawnAs(int64_t call_id) {
    rpc::transport::StreamMessage envelope = Envelope(call_id, "");
    envelope.set_kind(rpc::transport::StreamMessage::ERROR);
    return envelope;
  }

  // The one message that the server has got.
  rpc::transport::StreamMessage Received() const {
    rpc::transport::StreamMessage envelope;
    EXPECT_TRUE(envelope.ParseFromString(server_->received.substr(net::MessagePrefix().size())));
    return envelope;
  }

  rpc::transport::StreamMessage LastReceived() const {
    net::MessageReader reader(1 << 20);
    rpc::transport::StreamMessage last;
    const auto keep = [&](std::string_view message, bool /*compressed*/) {
      EXPECT_TRUE(last.ParseFromArray(message.data(), static_cast<int>(message.size())));
      return absl::OkStatus();
    };
    EXPECT_TRUE(reader.Read(server_->received, keep).ok());
    return last;
  }

  std::unique_ptr<ScriptedServer> server_;
};

TEST_F(CallbackAnswererGarbageTest, QuestionThatDoesNotParseFailsAlone) {
  rpc::CanAccessFile unreadable;
  *unreadable.mutable_profile_id() = Key("P");
  unreadable.mutable_request()->set_path("/tmp/\xff");
  HearFrom({Envelope(2, unreadable.SerializeAsString())});

  const rpc::transport::StreamMessage envelope = LastReceived();
  EXPECT_EQ(envelope.call_id(), 2);
  EXPECT_EQ(envelope.kind(), rpc::transport::StreamMessage::ERROR);
  rpc::CanAccessFile failure;
  ASSERT_TRUE(failure.ParseFromString(envelope.payload()));
  EXPECT_EQ(failure.profile_id().value(), "P");
  EXPECT_EQ(failure.error(), "The client cannot read the question");
  EXPECT_THAT(questions_, IsEmpty());
}

TEST_F(CallbackAnswererGarbageTest, WhatDoesNotParseLeavesTheStreamAndItsQuestions) {
  HearFrom({AskedAs(1), Envelope(2, "\xff"), Envelope(0, "\xff"), AskedAs(3)});

  EXPECT_THAT(heard_, ElementsAre("up"));
  ASSERT_THAT(questions_, SizeIs(2));
  EXPECT_FALSE(questions_[0].withdrawn());
  EXPECT_FALSE(questions_[1].withdrawn());
  EXPECT_EQ(LastReceived().call_id(), 2);
}

TEST_F(CallbackAnswererGarbageTest, ProfileThatDoesNotParseIsNotSentBack) {
  rpc::CanAccessFile unreadable;
  *unreadable.mutable_profile_id() = Key("\xff");
  HearFrom({Envelope(2, unreadable.SerializeAsString())});

  rpc::CanAccessFile failure;
  ASSERT_TRUE(failure.ParseFromString(LastReceived().payload()));
  EXPECT_EQ(failure.profile_id().value(), "");
}

TEST_F(CallbackAnswererGarbageTest, WithdrawalOfWhatIsNotOpenIsIgnored) {
  HearFrom({WithdrawnAs(7), AskedAs(1), WithdrawnAs(0), WithdrawnAs(-1)});

  ASSERT_THAT(questions_, SizeIs(1));
  EXPECT_FALSE(question().withdrawn());
  EXPECT_THAT(heard_, ElementsAre("up"));
}

TEST_F(CallbackAnswererGarbageTest, PayloadWithAnErrorIsAWithdrawalWithoutTheMark) {
  rpc::CanAccessFile error;
  error.set_error("withdrawn");
  HearFrom({AskedAs(1), Envelope(1, error.SerializeAsString())});

  ASSERT_THAT(questions_, SizeIs(1));
  EXPECT_TRUE(question().withdrawn());
}

TEST_F(CallbackAnswererGarbageTest, CallIdThatIsUsedTwiceBelongsToTheNewerQuestion) {
  HearFrom({AskedAs(1), AskedAs(1)});

  ASSERT_THAT(questions_, SizeIs(2));
  EXPECT_TRUE(questions_[0].withdrawn());
  EXPECT_FALSE(questions_[1].withdrawn());
}

TEST_F(CallbackAnswererGarbageTest, QuestionForAnotherProfileFailsUnheard) {
  HearFrom({AskedAs(1, "Q")});

  EXPECT_THAT(questions_, IsEmpty());
  EXPECT_THAT(server_->received, HasSubstr("The client does not answer for this profile"));
}

TEST_F(CallbackAnswererGarbageTest, FailureGoesOutWithItsCallIdItsProfileAndItsText) {
  HearFrom({AskedAs(7)});
  server_->received.clear();

  question().Fail("no file \xff\xc3\x28 \xe2\x82\xac \xed\xa0\x80 \xf4\x90\x80\x80 \xc3");
  Settle();

  const rpc::transport::StreamMessage envelope = Received();
  EXPECT_EQ(envelope.call_id(), 7);
  EXPECT_EQ(envelope.kind(), rpc::transport::StreamMessage::ERROR);
  rpc::CanAccessFile failure;
  ASSERT_TRUE(failure.ParseFromString(envelope.payload()));
  EXPECT_EQ(failure.profile_id().value(), "P");
  EXPECT_EQ(failure.error(),
            "no file \\xff\\xc3( \xe2\x82\xac \\xed\\xa0\\x80 \\xf4\\x90\\x80\\x80 \\xc3");
}

TEST_F(CallbackAnswererGarbageTest, FailureOfADroppedQuestionSaysSo) {
  HearFrom({AskedAs(1)});

  questions_.clear();
  Settle();

  EXPECT_THAT(server_->received, HasSubstr("The client dropped the question"));
}

TEST_F(CallbackAnswererGarbageTest, AnswerGoesOutWithItsCallIdAndItsProfile) {
  HearFrom({AskedAs(7)});
  server_->received.clear();

  question().Answer(Allow());
  Settle();

  const rpc::transport::StreamMessage envelope = Received();
  EXPECT_EQ(envelope.call_id(), 7);
  EXPECT_EQ(envelope.kind(), rpc::transport::StreamMessage::MESSAGE);
  rpc::CanAccessFile answer;
  ASSERT_TRUE(answer.ParseFromString(envelope.payload()));
  EXPECT_EQ(answer.profile_id().value(), "P");
  EXPECT_TRUE(answer.response().allow());
}

TEST_F(CallbackAnswererGarbageTest, WhatIsNoQuestionIsIgnored) {
  rpc::CanAccessFile control;
  control.set_subscribe(true);
  HearFrom({Envelope(1, ""), Envelope(2, control.SerializeAsString())});

  EXPECT_THAT(questions_, IsEmpty());
  EXPECT_THAT(heard_, ElementsAre("up"));
}

}  // namespace
}  // namespace varnic
