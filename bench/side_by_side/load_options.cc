#include "bench/side_by_side/load_options.h"

#include <cstddef>
#include <cstdlib>
#include <functional>
#include <map>

#include "bench/side_by_side/measurement.h"

namespace varnic::bench {

LoadOptions ParseLoadOptions(int argc, char** argv) {
  LoadOptions options;
  const std::map<std::string, std::function<void(const char*)>> setters = {
      {"--mode", [&](const char* value) { options.mode = value; }},
      {"--address", [&](const char* value) { options.address = value; }},
      {"--server", [&](const char* value) { options.server = std::atoi(value); }},
      {"--connections", [&](const char* value) { options.connections = std::atoi(value); }},
      {"--outstanding", [&](const char* value) { options.outstanding = std::atoi(value); }},
      {"--streams", [&](const char* value) { options.streams = std::atoi(value); }},
      {"--keys", [&](const char* value) { options.keys = std::atoi(value); }},
      {"--count", [&](const char* value) { options.count = std::atoll(value); }},
      {"--seconds", [&](const char* value) { options.seconds = std::atof(value); }},
      {"--warm-up", [&](const char* value) { options.warm_up = std::atof(value); }},
      {"--server-cpu", [&](const char* value) { options.server_cpu = std::atoi(value); }},
  };
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  for (std::size_t i = 0; i < arguments.size(); i += 2) {
    if (arguments[i] == "--") {
      options.server_command.assign(arguments.begin() + static_cast<std::ptrdiff_t>(i) + 1,
                                    arguments.end());
      break;
    }
    const auto setter = setters.find(arguments[i]);
    if (setter == setters.end() || i + 1 == arguments.size()) {
      Fail("not an option with a value: " + arguments[i]);
    }
    setter->second(arguments[i + 1].c_str());
  }
  return options;
}

}  // namespace varnic::bench
