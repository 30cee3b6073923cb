#include "core/host/question_asker.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "core/common/rpc/stream/profile_streams_test_support.h"
#include "core/common/rpc/testing/fake_scheduler.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"

namespace varnic::host {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using varnic::testing::AuthenticationStream;
using varnic::testing::FakeScheduler;
using varnic::testing::FileAccessStream;
using varnic::testing::Profile;
using varnic::testing::ProfileStreamsTest;
using varnic::testing::ServedStream;

class QuestionAskerTest : public ProfileStreamsTest {
 protected:
  template <class T>
  static void Subscribe(ServedStream<CallbackStream<T>>& stream, const std::string& key) {
    T message;
    *message.mutable_profile_id() = Profile(key);
    message.set_subscribe(true);
    stream.Receive(message);
  }
  // The questions that a client was sent.
  template <class T>
  static std::vector<T> Questions(const ServedStream<CallbackStream<T>>& stream) {
    std::vector<T> questions;
    for (const auto& sent : stream.recording().sent()) {
      T message;
      EXPECT_TRUE(message.ParseFromString(sent.payload()));
      questions.push_back(message);
    }
    return questions;
  }

  // Instead of the one that is there, which goes first.
  void MakeAsker(const QuestionOptions& options) {
    asker_ = nullptr;
    asker_ = std::make_unique<QuestionAsker>(scheduler_, options);
  }
  QuestionAsker::Id AskFile(const std::vector<ProfileId>& keys, const std::string& path = "/f") {
    rpc::CanAccessFile::Request request;
    request.set_path(path);
    request.set_access(rpc::CanAccessFile::READ);
    request.set_origin("null");
    return asker_->AskFile(keys, request,
                           [this](bool allow) { log_.push_back(allow ? "allow" : "deny"); });
  }
  QuestionAsker::Id AskLogin(const std::vector<ProfileId>& keys) {
    rpc::Authenticate::Request request;
    request.set_realm("R");
    return asker_->AskLogin(keys, request, [this](const rpc::Authenticate::Response& response) {
      log_.push_back(response.cancel() ? "cancel" : response.username());
    });
  }
  template <class T>
  static T AnswerTo(const T& question, const typename T::Response& response) {
    T answer;
    *answer.mutable_profile_id() = question.profile_id();
    answer.set_call_id(question.call_id());
    *answer.mutable_response() = response;
    return answer;
  }
  template <class T>
  static void Reply(ServedStream<CallbackStream<T>>& stream, const T& answer) {
    stream.Receive(answer, answer.call_id());
  }
  static rpc::CanAccessFile::Response Allow() {
    rpc::CanAccessFile::Response response;
    response.set_allow(true);
    return response;
  }

  FakeScheduler scheduler_;
  std::vector<std::string> log_;
  std::unique_ptr<QuestionAsker> asker_ =
      std::make_unique<QuestionAsker>(scheduler_, QuestionOptions{});
};

TEST_F(QuestionAskerTest, AnswerOfTheFirstKeyCounts) {
  ServedStream<FileAccessStream> first(service_);
  ServedStream<FileAccessStream> second(service_);
  Subscribe(first, "a");
  Subscribe(second, "b");

  AskFile({Profile("a"), Profile("b")});
  scheduler_.RunPosted();
  ASSERT_EQ(Questions(first).size(), 1u);
  Reply(first, AnswerTo(Questions(first)[0], Allow()));

  EXPECT_THAT(log_, ElementsAre("allow"));
  EXPECT_THAT(Questions(second), IsEmpty());
  EXPECT_EQ(asker_->open_questions(), 0u);
}

TEST_F(QuestionAskerTest, NextKeyIsTriedWhenNobodyAnswersForTheFirst) {
  ServedStream<FileAccessStream> stream(service_);
  Subscribe(stream, "b");

  AskFile({Profile("a"), Profile("b")}, "/etc/hosts");
  scheduler_.RunPosted();

  ASSERT_EQ(Questions(stream).size(), 1u);
  EXPECT_EQ(Questions(stream)[0].request().path(), "/etc/hosts");
  EXPECT_EQ(Questions(stream)[0].profile_id().value(), "b");
}

TEST_F(QuestionAskerTest, DefaultComesAtOnceWhenNobodyAnswers) {
  AskFile({Profile("a"), Profile("b")});
  AskFile({});
  AskLogin({Profile("a")});
  EXPECT_THAT(log_, IsEmpty());

  scheduler_.RunPosted();

  EXPECT_THAT(log_, ::testing::UnorderedElementsAre("deny", "deny", "cancel"));
}

TEST_F(QuestionAskerTest, FilesMayBeAllowedByDefault) {
  MakeAsker(QuestionOptions{absl::Seconds(1), true});

  AskFile({Profile("a")});
  scheduler_.RunPosted();

  EXPECT_THAT(log_, ElementsAre("allow"));
}

TEST_F(QuestionAskerTest, SlowClientGetsNoSecondChance) {
  ServedStream<FileAccessStream> stream(service_);
  Subscribe(stream, "a");
  AskFile({Profile("a")});
  scheduler_.RunPosted();

  scheduler_.Advance(absl::Seconds(30));
  Reply(stream, AnswerTo(Questions(stream)[0], Allow()));

  EXPECT_THAT(log_, ElementsAre("deny"));
}

TEST_F(QuestionAskerTest, ErrorOfAClientIsTheDefaultAndNotTheNextKey) {
  ServedStream<FileAccessStream> first(service_);
  ServedStream<FileAccessStream> second(service_);
  Subscribe(first, "a");
  Subscribe(second, "b");
  AskFile({Profile("a"), Profile("b")});
  scheduler_.RunPosted();
  rpc::CanAccessFile error;
  *error.mutable_profile_id() = Profile("a");
  error.set_call_id(Questions(first)[0].call_id());
  error.set_error("no screen");

  first.ReceiveError(error, error.call_id());
  scheduler_.RunPosted();

  EXPECT_THAT(log_, ElementsAre("deny"));
  EXPECT_THAT(Questions(second), IsEmpty());
}

TEST_F(QuestionAskerTest, ClientThatGoesAwayLeavesTheDefault) {
  {
    ServedStream<AuthenticationStream> stream(service_);
    Subscribe(stream, "a");
    AskLogin({Profile("a")});
    scheduler_.RunPosted();
    ASSERT_EQ(Questions(stream).size(), 1u);
  }
  scheduler_.RunPosted();

  EXPECT_THAT(log_, ElementsAre("cancel"));
}

TEST_F(QuestionAskerTest, CredentialsComeThrough) {
  ServedStream<AuthenticationStream> stream(service_);
  Subscribe(stream, "a");
  AskLogin({Profile("a")});
  scheduler_.RunPosted();
  rpc::Authenticate::Response response;
  response.set_username("ann");
  response.set_password("secret");

  Reply(stream, AnswerTo(Questions(stream)[0], response));

  EXPECT_THAT(log_, ElementsAre("ann"));
}

TEST_F(QuestionAskerTest, WithdrawnQuestionHasNoAnswerAndTheClientIsTold) {
  ServedStream<FileAccessStream> stream(service_);
  Subscribe(stream, "a");
  const QuestionAsker::Id id = AskFile({Profile("a")});
  scheduler_.RunPosted();

  asker_->Withdraw(id);
  asker_->Withdraw(id);
  scheduler_.Advance(absl::Hours(1));

  EXPECT_THAT(log_, IsEmpty());
  ASSERT_EQ(Questions(stream).size(), 2u);
  EXPECT_EQ(Questions(stream)[1].error(), "withdrawn");
  EXPECT_EQ(asker_->open_questions(), 0u);
}

TEST_F(QuestionAskerTest, WithdrawnQuestionHasNoDefaultEither) {
  asker_->Withdraw(AskFile({Profile("nobody")}));

  scheduler_.RunPosted();

  EXPECT_THAT(log_, IsEmpty());
}

TEST_F(QuestionAskerTest, TextThatIsNoUtf8IsNotAsked) {
  ServedStream<FileAccessStream> stream(service_);
  Subscribe(stream, "a");

  AskFile({Profile("a")}, "/\xff");
  scheduler_.RunPosted();

  EXPECT_THAT(log_, ElementsAre("deny"));
  EXPECT_THAT(Questions(stream), IsEmpty());
}

TEST_F(QuestionAskerTest, QuestionsOverTheLimitGetTheDefault) {
  QuestionOptions options;
  options.open_questions = 2;
  MakeAsker(options);
  ServedStream<FileAccessStream> stream(service_);
  Subscribe(stream, "a");

  for (int i = 0; i < 5; ++i) AskFile({Profile("a")});
  scheduler_.RunPosted();

  EXPECT_THAT(log_, ElementsAre("deny", "deny", "deny"));
  EXPECT_EQ(Questions(stream).size(), 2u);
  EXPECT_EQ(asker_->questions_over_limit(), 3u);
}

TEST_F(QuestionAskerTest, ProfileWithTooManyQuestionsKeepsNoOtherFromAsking) {
  QuestionOptions options;
  options.open_questions_of_profile = 2;
  MakeAsker(options);
  ServedStream<FileAccessStream> stream(service_);
  Subscribe(stream, "a");
  Subscribe(stream, "b");

  for (int i = 0; i < 3; ++i) AskFile({Profile("a")});
  AskFile({Profile("b"), Profile("a")});
  scheduler_.RunPosted();

  EXPECT_THAT(log_, ElementsAre("deny"));
  EXPECT_EQ(Questions(stream).size(), 3u);
  EXPECT_EQ(asker_->questions_over_limit(), 1u);
}

TEST_F(QuestionAskerTest, DestroyedAskerRunsNoCallback) {
  ServedStream<FileAccessStream> stream(service_);
  Subscribe(stream, "a");
  AskFile({Profile("a")});
  AskFile({Profile("nobody")});

  asker_ = nullptr;
  scheduler_.RunPosted();

  EXPECT_THAT(log_, IsEmpty());
}

TEST_F(QuestionAskerTest, AnswerMayAskTheNextQuestion) {
  rpc::CanAccessFile::Request request;
  asker_->AskFile({}, request, [this](bool) { AskFile({}); });

  scheduler_.RunPosted();

  EXPECT_THAT(log_, ElementsAre("deny"));
}

}  // namespace
}  // namespace varnic::host
