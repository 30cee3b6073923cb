#ifndef TOOLS_TERMINAL_PROMPT_H_
#define TOOLS_TERMINAL_PROMPT_H_

#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "absl/functional/function_ref.h"
#include "core/net/event_loop.h"
#include "core/net/lifetime.h"
#include "core/net/readable_watch.h"
#include "tools/line_writer.h"
#include "tools/terminal.h"

namespace varnic::tools {

// Asks the person at a terminal, one question after the other, in the order in which they came.
//
// Belongs to the loop's thread, and never blocks the loop. What was typed before a question was
// shown, or shown again, does not answer it; behind a withdrawn question the next one is shown half
// a second later, so that an answer that is on its way to the keys does not hit it. Ask() and
// Withdraw() may be called inside callbacks; destroying the prompt there is not allowed. Its
// destruction drops the questions that are open.
class TerminalPrompt {
 public:
  // Which answer to wait for.
  struct Step {
    std::string text;       // Shown as it is: what others wrote has to be made safe before.
    bool hidden = false;    // The answer is not shown while it is typed.
    bool required = false;  // An empty answer gives the whole question up.
  };
  using Steps = std::vector<Step>;
  using QuestionId = std::uint64_t;
  // One answer for each step, or none if the question was given up: by Ctrl-D, by an empty answer
  // where one is required, or because the terminal is gone.
  using OnAnswers = std::function<void(std::optional<std::vector<std::string>> answers)>;

  // The loop must outlive the prompt.
  TerminalPrompt(net::EventLoop& loop, Terminal terminal);
  TerminalPrompt(const TerminalPrompt&) = delete;
  TerminalPrompt& operator=(const TerminalPrompt&) = delete;
  ~TerminalPrompt();

  // `steps` are not empty.
  QuestionId Ask(Steps steps, OnAnswers on_answers);
  // Drops a question without an answer; tells the person if it is on the screen. Nothing happens if
  // it has been answered.
  void Withdraw(QuestionId question_id);
  // Runs `write`, which writes whole lines to what may be the same screen, and shows the question
  // that it has interrupted again. What is being typed without being shown is not shown for that:
  // the person is told to start again, and asked half a second later.
  void Interrupt(absl::FunctionRef<void()> write);

 private:
  struct Question {
    QuestionId id;
    Steps steps;
    OnAnswers on_answers;
    std::vector<std::string> answers;
  };

  void ShowStep();
  // False if the terminal does not let us.
  bool HideInput(const Step& step);
  void Listen();
  void StopListening();
  void HideStep();
  void Settle();
  void OnSettled();
  void GiveUpSoon();
  void OnReadable();
  void OnLine(std::string line);
  void EndQuestion(bool answered);

  net::EventLoop& loop_;
  Terminal terminal_;
  std::list<Question> questions_;  // The first one is being asked.
  QuestionId last_id_ = 0;
  bool shown_ = false;      // The first question has been.
  bool on_screen_ = false;  // A step of the first question is.
  bool settling_ = false;   // What is typed now was meant for something else.
  LineWriter screen_;
  std::unique_ptr<HiddenInput> hidden_;
  std::unique_ptr<net::ReadableWatch> watch_;  // While a step is on the screen.
  net::Timer settle_;
  net::Lifetime lifetime_;
};

}  // namespace varnic::tools

#endif  // TOOLS_TERMINAL_PROMPT_H_
