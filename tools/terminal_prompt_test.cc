#include "tools/terminal_prompt.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "absl/strings/str_join.h"
#include "absl/time/clock.h"
#include "absl/time/time.h"
#include "core/net/testing/fake_clock.h"

namespace varnic::tools {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

using Steps = TerminalPrompt::Steps;

// A person's end of a terminal, and a prompt at the other end.
class TerminalPromptTest : public ::testing::Test {
 protected:
  TerminalPromptTest() {
    int person = -1;
    int program = -1;
    EXPECT_EQ(openpty(&person, &program, nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(fcntl(person, F_SETFL, O_NONBLOCK), 0);
    EXPECT_EQ(fcntl(program, F_SETFL, O_NONBLOCK), 0);
    person_ = host::FileDescriptor(person);
    program_ = program;
    prompt_ = std::make_unique<TerminalPrompt>(loop_, Terminal(host::FileDescriptor(program)));
  }

  TerminalPrompt::QuestionId Ask(Steps steps) {
    return prompt_->Ask(std::move(steps), [this](std::optional<std::vector<std::string>> answers) {
      answers_.push_back(answers.has_value() ? absl::StrJoin(*answers, " ") : "given up");
    });
  }

  void Type(const std::string& text) {
    EXPECT_EQ(write(person_.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }

  void WaitForAnswers(std::size_t count) {
    EXPECT_TRUE(loop_.RunUntil([&] { return answers_.size() >= count; }));
  }

  // What is typed, and what is written, arrives in the system's own time.
  void WaitUntilTyped() {
    pollfd end = {program_, POLLIN, 0};
    EXPECT_EQ(poll(&end, 1, -1), 1);
  }
  void WaitForScreen(const std::string& text) {
    const absl::Time end = absl::Now() + absl::Seconds(30);
    while (screen_.find(text) == std::string::npos) {
      ASSERT_LT(absl::Now(), end) << screen_;
      loop_.RunPending();
      pollfd readable = {person_.get(), POLLIN, 0};
      std::array<char, 4096> buffer;
      if (poll(&readable, 1, /*timeout=*/10) <= 0) continue;
      const ssize_t count = read(person_.get(), buffer.data(), buffer.size());
      if (count > 0) screen_.append(buffer.data(), static_cast<std::size_t>(count));
    }
  }

  net::EventLoop loop_;
  host::FileDescriptor person_;
  int program_ = -1;  // The prompt's.
  std::vector<std::string> answers_;
  std::string screen_;  // Everything that has been on it, so far as it was waited for.
  std::unique_ptr<TerminalPrompt> prompt_;
};

// With the loop's time in the test's hands.
class HeldTerminalPromptTest : public TerminalPromptTest {
 protected:
  bool Echoes() const {
    termios mode = {};
    EXPECT_EQ(tcgetattr(program_, &mode), 0);
    return (mode.c_lflag & ECHO) != 0;
  }

  net::testing::FakeClock clock_;
};

TEST_F(TerminalPromptTest, QuestionIsShownAndItsAnswerTaken) {
  Ask({{"Well? "}});
  WaitForScreen("Well? ");

  Type("yes\n");
  WaitForAnswers(1);

  EXPECT_THAT(answers_, ElementsAre("yes"));
}

TEST_F(TerminalPromptTest, QuestionsComeOneAfterTheOther) {
  Ask({{"First? "}});
  Ask({{"Second? "}});
  WaitForScreen("First? ");
  EXPECT_THAT(screen_, Not(HasSubstr("Second")));

  Type("1\n");
  WaitForAnswers(1);
  WaitForScreen("Second? ");
  Type("2\n");
  WaitForAnswers(2);

  EXPECT_THAT(answers_, ElementsAre("1", "2"));
}

TEST_F(TerminalPromptTest, StepsOfAQuestionStayTogetherAndHiddenOnesAreNotShown) {
  Ask({{"Name? "}, {"Password? ", /*hidden=*/true}});
  Ask({{"Other? "}});

  Type("zoë\n");
  WaitForScreen("Password? ");
  Type("secret\n");
  WaitForAnswers(1);

  EXPECT_THAT(answers_, ElementsAre("zoë secret"));
  Type("seen");
  WaitForScreen("seen");
  EXPECT_THAT(screen_, Not(HasSubstr("secret")));
}

TEST_F(TerminalPromptTest, EmptyAnswerGivesUpWhereOneIsRequired) {
  Ask({{"Name? ", false, /*required=*/true}, {"Password? ", /*hidden=*/true}});

  Type("\n");
  WaitForAnswers(1);

  Ask({{"Other? "}});
  WaitForScreen("Other? ");
  EXPECT_THAT(answers_, ElementsAre("given up"));
  EXPECT_THAT(screen_, Not(HasSubstr("Password")));
}

TEST_F(TerminalPromptTest, ControlDGivesUpOneQuestion) {
  Ask({{"First? "}});
  Ask({{"Second? "}});

  Type("\x04");
  WaitForAnswers(1);
  WaitForScreen("Second? ");
  Type("2\n");
  WaitForAnswers(2);

  EXPECT_THAT(answers_, ElementsAre("given up", "2"));
}

TEST_F(TerminalPromptTest, TerminalThatIsGoneGivesEveryQuestionUp) {
  Ask({{"First? "}});
  Ask({{"Password? ", /*hidden=*/true}});

  person_.Close();

  WaitForAnswers(2);
  Ask({{"Password? ", /*hidden=*/true}});
  WaitForAnswers(3);
  EXPECT_THAT(answers_, ElementsAre("given up", "given up", "given up"));
}

TEST_F(TerminalPromptTest, WaitingQuestionIsWithdrawnWithoutAWord) {
  Ask({{"First? "}});
  const auto second = Ask({{"Second? "}});

  prompt_->Withdraw(second);
  prompt_->Withdraw(second);
  Type("1\n");
  WaitForAnswers(1);
  Ask({{"Third? "}});
  WaitForScreen("Third? ");

  EXPECT_THAT(answers_, ElementsAre("1"));
  EXPECT_THAT(screen_, Not(HasSubstr("Nobody")));
  EXPECT_THAT(screen_, Not(HasSubstr("Second")));
}

TEST_F(TerminalPromptTest, WhatWasTypedBeforeAQuestionDoesNotAnswerIt) {
  Type("y\ny\n");
  WaitUntilTyped();

  Ask({{"Well? "}});
  Type("no\n");
  WaitForAnswers(1);

  EXPECT_THAT(answers_, ElementsAre("no"));
}

TEST_F(TerminalPromptTest, InterruptedQuestionIsShownAgainAndHalfAnAnswerForgotten) {
  Ask({{"Well? "}});
  Type("y");
  WaitForScreen("Well? y");

  bool written = false;
  prompt_->Interrupt([&] { written = true; });
  WaitForScreen("Well? y\r\nWell? ");
  Type("no\n");
  WaitForAnswers(1);

  EXPECT_TRUE(written);
  EXPECT_THAT(answers_, ElementsAre("no"));
}

TEST_F(HeldTerminalPromptTest, WithdrawnQuestionIsToldAndTheNextOneAsked) {
  const auto first = Ask({{"First? "}});
  Ask({{"Second? "}});
  Type("half an ans");
  WaitForScreen("half an ans");

  prompt_->Withdraw(first);
  clock_.Advance(absl::Milliseconds(500));
  WaitForScreen("\r\n(Nobody waits for this answer any more.)\r\nSecond? ");
  Type("2\n");
  WaitUntilTyped();
  loop_.RunPending();

  EXPECT_THAT(answers_, ElementsAre("2"));
}

TEST_F(HeldTerminalPromptTest, WhatWasMeantForAWithdrawnQuestionDoesNotAnswerTheNextOne) {
  const auto first = Ask({{"First? "}});
  Ask({{"Second? "}});
  WaitForScreen("First? ");

  prompt_->Withdraw(first);
  Type("y\n");
  WaitUntilTyped();
  clock_.Advance(absl::Milliseconds(499));
  loop_.RunPending();
  EXPECT_THAT(screen_, Not(HasSubstr("Second? ")));
  clock_.Advance(absl::Milliseconds(1));
  WaitForScreen("Second? ");
  loop_.RunPending();

  EXPECT_THAT(answers_, IsEmpty());
  Type("2\n");
  WaitUntilTyped();
  loop_.RunPending();
  EXPECT_THAT(answers_, ElementsAre("2"));
}

TEST_F(HeldTerminalPromptTest, QuestionThatComesRightBehindAWithdrawalWaitsToo) {
  const auto first = Ask({{"First? "}});
  prompt_->Withdraw(first);

  const auto second = Ask({{"Second? "}});
  Ask({{"Third? "}});
  prompt_->Withdraw(second);
  WaitForScreen("any more.)\r\n");
  EXPECT_THAT(screen_, Not(HasSubstr("Second? ")));
  clock_.Advance(absl::Milliseconds(500));

  WaitForScreen("any more.)\r\nThird? ");
}

TEST_F(HeldTerminalPromptTest, InterruptedPasswordIsNotShownAndStartsAgain) {
  Ask({{"Password? ", /*hidden=*/true}});
  WaitForScreen("Password? ");
  Type("sec");

  bool echoed = true;
  prompt_->Interrupt([&] { echoed = Echoes(); });
  EXPECT_FALSE(echoed);
  EXPECT_FALSE(Echoes());
  Type("ret\n");
  WaitUntilTyped();
  clock_.Advance(absl::Milliseconds(500));
  WaitForScreen("(Interrupted: start again.)\r\n\r\nPassword? ");
  loop_.RunPending();

  EXPECT_THAT(answers_, IsEmpty());
  Type("secret\n");
  WaitUntilTyped();
  loop_.RunPending();
  EXPECT_THAT(answers_, ElementsAre("secret"));
  EXPECT_THAT(screen_, Not(HasSubstr("ret")));
  EXPECT_TRUE(Echoes());
}

TEST_F(HeldTerminalPromptTest, WithdrawnPasswordStaysHiddenForAWhile) {
  const auto question = Ask({{"Password? ", /*hidden=*/true}});
  WaitForScreen("Password? ");

  prompt_->Withdraw(question);
  EXPECT_FALSE(Echoes());
  clock_.Advance(absl::Milliseconds(500));
  loop_.RunPending();

  EXPECT_TRUE(Echoes());
}

TEST_F(HeldTerminalPromptTest, StoppedTerminalHoldsNobodyUpAndNothingTypedThereAnswers) {
  ASSERT_EQ(tcflow(program_, TCOOFF), 0);
  Ask({{"Well? "}});
  Type("y\n");
  WaitUntilTyped();
  loop_.RunPending();
  EXPECT_THAT(answers_, IsEmpty());

  ASSERT_EQ(tcflow(program_, TCOON), 0);
  clock_.Advance(absl::Milliseconds(50));
  WaitForScreen("Well? ");
  loop_.RunPending();
  EXPECT_THAT(answers_, IsEmpty());
  Type("no\n");
  WaitUntilTyped();
  loop_.RunPending();

  EXPECT_THAT(answers_, ElementsAre("no"));
}

TEST_F(HeldTerminalPromptTest, StoppedTerminalShowsAQuestionOnceHoweverOftenItIsInterrupted) {
  ASSERT_EQ(tcflow(program_, TCOOFF), 0);
  Ask({{std::string(1000, 'a') + "? "}});
  for (int i = 0; i < 200; ++i) prompt_->Interrupt([] {});

  ASSERT_EQ(tcflow(program_, TCOON), 0);
  clock_.Advance(absl::Milliseconds(50));
  WaitForScreen("\na");
  WaitForScreen("aa? ");
  clock_.Advance(absl::Milliseconds(50));
  loop_.RunPending();
  Type("yes\n");
  WaitUntilTyped();
  loop_.RunPending();

  EXPECT_LT(screen_.size(), 10000u);
  EXPECT_THAT(answers_, ElementsAre("yes"));
}

TEST_F(TerminalPromptTest, AnswerMayAskTheNextQuestion) {
  prompt_->Ask({{"First? "}}, [this](const auto& /*answers*/) { Ask({{"Next? "}}); });

  Type("1\n");
  WaitForScreen("Next? ");
  Type("2\n");
  WaitForAnswers(1);

  EXPECT_THAT(answers_, ElementsAre("2"));
}

TEST_F(TerminalPromptTest, DestructionDropsOpenQuestionsAndEndsTheLine) {
  Ask({{"Well? "}});
  Ask({{"Password? ", /*hidden=*/true}});

  prompt_.reset();
  loop_.RunPending();

  WaitForScreen("\r\n");
  EXPECT_EQ(screen_, "Well? \r\n");
  EXPECT_THAT(answers_, IsEmpty());
}

}  // namespace
}  // namespace varnic::tools
