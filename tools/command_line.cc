#include "tools/command_line.h"

#include <getopt.h>

#include "absl/status/status.h"
#include "absl/strings/str_cat.h"

namespace varnic::tools {

std::string CommandLine::Get(const std::string& name, const std::string& fallback) const {
  const auto found = options.find(name);
  return found == options.end() ? fallback : found->second.back();
}

std::string CommandLine::Quote(const std::vector<std::string>& names) const {
  std::string text;
  for (const std::string& name : names) {
    if (!Has(name)) continue;
    const std::string value = Get(name, "");
    absl::StrAppend(&text, text.empty() ? "--" : " --", name, value.empty() ? "" : " ", value);
  }
  return text;
}

absl::StatusOr<CommandLine> ParseCommandLine(const std::vector<std::string>& arguments,
                                             const std::vector<OptionSpec>& specs) {
  std::vector<option> long_options;
  for (const OptionSpec& spec : specs) {
    long_options.push_back(
        {spec.name, spec.takes_value ? required_argument : no_argument, nullptr, 0});
  }
  long_options.push_back({nullptr, 0, nullptr, 0});

  std::string program;
  std::vector<std::string> texts = arguments;
  std::vector<char*> argv = {&program[0]};
  for (std::string& text : texts) argv.push_back(&text[0]);
  argv.push_back(nullptr);
  const int argc = static_cast<int>(argv.size()) - 1;

  CommandLine result;
  optind = 0;  // Starts anew, however often this is called.
  while (true) {
    int index = 0;
    // The colon: this function words its own errors.
    const int code = getopt_long(argc, argv.data(), ":h", long_options.data(), &index);
    if (code == -1) break;
    if (code == 'h') {
      result.options["help"].emplace_back();
      continue;
    }
    const std::string text = argv[optind - 1];
    if (code == ':') return absl::InvalidArgumentError(absl::StrCat(text, " needs a value"));
    if (code == '?') {
      // A short option may stand among others in its word, where getopt has not passed it yet.
      const bool is_long = text.compare(0, 2, "--") == 0;
      return absl::InvalidArgumentError(
          absl::StrCat("unknown or misused option ",
                       is_long ? text : std::string("-") + static_cast<char>(optopt)));
    }
    result.options[long_options[index].name].push_back(optarg == nullptr ? "" : optarg);
  }
  for (int i = optind; i < argc; ++i) result.words.emplace_back(argv[i]);
  return result;
}

}  // namespace varnic::tools
