#ifndef BENCH_SIDE_BY_SIDE_LOAD_OPTIONS_H_
#define BENCH_SIDE_BY_SIDE_LOAD_OPTIONS_H_

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace varnic::bench {

// The command line of every load generator: --name value, and for the mode "start", behind "--",
// the command that starts the server.
struct LoadOptions {
  std::string mode;
  std::string address;
  pid_t server = 0;
  int connections = 1;
  int outstanding = 1;  // Calls, or questions, on each connection.
  int streams = 1;      // On each connection.
  int keys = 0;         // That other streams hold, in what is measured of keys.
  // Not zero: so many calls, or events, are made, whatever time they take, for the server's memory.
  std::int64_t count = 0;
  double seconds = 1;
  double warm_up = 0.2;  // Seconds.
  int server_cpu = -1;   // For a server that is started here; negative: anywhere.
  std::vector<std::string> server_command;
};

// Ends the program if an option is not one of these.
LoadOptions ParseLoadOptions(int argc, char** argv);

}  // namespace varnic::bench

#endif  // BENCH_SIDE_BY_SIDE_LOAD_OPTIONS_H_
