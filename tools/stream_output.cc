#include "tools/stream_output.h"

#include <utility>

#include "absl/strings/str_cat.h"
#include "absl/time/clock.h"

namespace varnic::tools {
namespace {

constexpr absl::Duration kPatienceAtTheEnd = absl::Milliseconds(500);

}  // namespace

StreamOutput::StreamOutput(net::EventLoop& loop, const Options& options,
                           std::function<void(int)> on_broken)
    : options_(options),
      out_(loop, options.out,
           {[this](std::size_t lines) { return NoteOfDropped(lines); }, std::move(on_broken)}),
      err_(loop, options.err, {[this](std::size_t lines) { return NoteOfDropped(lines); }, {}}) {}

void StreamOutput::Tell(const Happening& happening) {
  const std::string line = Line(happening);
  LineWriter& writer = options_.json || happening.profile.has_value() ? out_ : err_;
  if (prompt_ == nullptr) {
    writer.Write(line);
  } else {
    prompt_->Interrupt([&] { writer.Write(line); });
  }
}

void StreamOutput::Finish() {
  out_.Finish(kPatienceAtTheEnd);
  err_.Finish(kPatienceAtTheEnd);
}

std::string StreamOutput::Line(const Happening& happening) const {
  return options_.json
             ? LineForPrograms(happening, absl::Now())
             : LineForPeople(happening, absl::Now(), options_.zone, options_.profile_width);
}

std::string StreamOutput::NoteOfDropped(std::size_t lines) const {
  const std::string text = absl::StrCat("lines dropped here, because nobody read them: ", lines);
  return Line({"dropped", std::nullopt, text, {{"lines", lines}}});
}

}  // namespace varnic::tools
