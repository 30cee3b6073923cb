#include "tools/terminal_prompt.h"

#include <algorithm>
#include <utility>

#include "core/common/rpc/fatal.h"

namespace varnic::tools {
namespace {

constexpr absl::Duration kSettleTime = absl::Milliseconds(500);

}  // namespace

TerminalPrompt::TerminalPrompt(net::EventLoop& loop, Terminal terminal)
    : loop_(loop),
      terminal_(std::move(terminal)),
      screen_(loop, terminal_.descriptor(), {}),
      settle_(loop) {}

TerminalPrompt::~TerminalPrompt() {
  // Half a password is not for whoever reads from the terminal next.
  if (hidden_ != nullptr) terminal_.DiscardInput();
  if (!questions_.empty()) screen_.Write("\n");
}

TerminalPrompt::QuestionId TerminalPrompt::Ask(Steps steps, OnAnswers on_answers) {
  VARNIC_CHECK(!steps.empty());
  questions_.push_back({++last_id_, std::move(steps), std::move(on_answers), {}});
  if (questions_.size() == 1 && !settling_) ShowStep();
  return questions_.back().id;
}

void TerminalPrompt::Withdraw(QuestionId question_id) {
  const auto found =
      std::find_if(questions_.begin(), questions_.end(),
                   [question_id](const Question& question) { return question.id == question_id; });
  if (found == questions_.end()) return;
  const bool was_shown = shown_ && found == questions_.begin();
  questions_.erase(found);
  if (!was_shown) return;
  shown_ = false;
  StopListening();
  screen_.Write("\n(Nobody waits for this answer any more.)\n");
  Settle();
}

void TerminalPrompt::Interrupt(absl::FunctionRef<void()> write) {
  if (!on_screen_) {
    write();
    return;
  }
  StopListening();
  screen_.Write("\n");
  write();
  if (hidden_ == nullptr) {
    ShowStep();
    return;
  }
  screen_.Write("(Interrupted: start again.)\n");
  Settle();
}

void TerminalPrompt::ShowStep() {
  const Question& question = questions_.front();
  const Step& step = question.steps[question.answers.size()];
  shown_ = true;
  on_screen_ = true;
  if (!HideInput(step)) {
    GiveUpSoon();
    return;
  }
  // A terminal that is stopped shows it once only, however often it is interrupted until then.
  if (screen_.waiting()) {
    screen_.WhenWritten([this] { ShowStep(); });
    return;
  }
  terminal_.DiscardInput();
  screen_.Write(step.text);
  if (!screen_.waiting()) {
    Listen();
    return;
  }
  // Nobody can have read it yet.
  screen_.WhenWritten([this] {
    terminal_.DiscardInput();
    Listen();
  });
}

bool TerminalPrompt::HideInput(const Step& step) {
  if (!step.hidden) {
    hidden_.reset();
  } else if (hidden_ == nullptr) {
    hidden_ = std::make_unique<HiddenInput>(terminal_);
  }
  return hidden_ == nullptr || hidden_->hidden();
}

void TerminalPrompt::Listen() {
  auto watch = net::ReadableWatch::Start(loop_, terminal_.descriptor(), [this] { OnReadable(); });
  if (!watch.ok()) {
    GiveUpSoon();
    return;
  }
  watch_ = *std::move(watch);
}

// Not inside Ask(), whose caller does not know the question's id yet.
void TerminalPrompt::GiveUpSoon() {
  loop_.Post(lifetime_.Guard([this, id = questions_.front().id] {
    if (!questions_.empty() && questions_.front().id == id) EndQuestion(/*answered=*/false);
  }));
}

void TerminalPrompt::StopListening() {
  on_screen_ = false;
  watch_.reset();
  screen_.WhenWritten(nullptr);
}

void TerminalPrompt::HideStep() {
  StopListening();
  hidden_.reset();
}

// Input that is hidden stays so: the fingers go on for a while.
void TerminalPrompt::Settle() {
  settling_ = true;
  settle_.Start(kSettleTime, [this] { OnSettled(); });
}

void TerminalPrompt::OnSettled() {
  settling_ = false;
  if (!questions_.empty()) {
    ShowStep();
    return;
  }
  terminal_.DiscardInput();
  hidden_.reset();
}

void TerminalPrompt::OnReadable() {
  std::string line;
  switch (terminal_.ReadLine(line)) {
    case Terminal::Input::kLine:
      OnLine(std::move(line));
      break;
    case Terminal::Input::kNothingYet:
      break;
    case Terminal::Input::kEnd:
      screen_.Write("\n");
      EndQuestion(/*answered=*/false);
  }
}

void TerminalPrompt::OnLine(std::string line) {
  HideStep();
  Question& question = questions_.front();
  const bool given_up = line.empty() && question.steps[question.answers.size()].required;
  question.answers.push_back(std::move(line));
  if (given_up || question.answers.size() == question.steps.size()) {
    EndQuestion(!given_up);
  } else {
    ShowStep();
  }
}

void TerminalPrompt::EndQuestion(bool answered) {
  HideStep();
  shown_ = false;
  Question question = std::move(questions_.front());
  questions_.pop_front();
  if (answered) {
    question.on_answers(std::move(question.answers));
  } else {
    question.on_answers(std::nullopt);
  }
  // The callback may have asked, and so shown, the next question already.
  if (!questions_.empty() && !on_screen_ && !settling_) ShowStep();
}

}  // namespace varnic::tools
