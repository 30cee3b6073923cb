#ifndef CORE_SERVER_METRICS_PROCESS_USAGE_H_
#define CORE_SERVER_METRICS_PROCESS_USAGE_H_

namespace varnic {

// What this process uses of the machine, as the system tells it now. What cannot be read is 0.
struct ProcessUsage {
  static ProcessUsage Read();

  double cpu_seconds = 0;  // Of all threads, in user and in system mode.
  double resident_bytes = 0;
  double virtual_bytes = 0;
  double open_fds = 0;
  double max_fds = 0;
  double threads = 0;
  double start_time_seconds = 0;  // Of the Unix epoch.
};

}  // namespace varnic

#endif  // CORE_SERVER_METRICS_PROCESS_USAGE_H_
