#include "core/server/protobuf_log.h"

#include <atomic>
#include <mutex>
#include <optional>
#include <string>

#include "base/logging.h"
#include "core/net/log_limiter.h"
// Newer versions of protobuf log through abseil, whose records are the process's own matter.
#if __has_include(<google/protobuf/stubs/logging.h>)
#include <google/protobuf/stubs/logging.h>
#define VARNIC_HAS_PROTOBUF_LOG_HANDLER 1
#endif

namespace varnic {
namespace {

std::atomic<std::uint64_t> g_complaints{0};

#ifdef VARNIC_HAS_PROTOBUF_LOG_HANDLER

std::atomic<google::protobuf::LogHandler*> g_former_handler{nullptr};

std::optional<std::uint64_t> AdmitLine() {
  static std::mutex mutex;
  static net::LogLimiter limiter;
  const std::lock_guard<std::mutex> lock(mutex);
  return limiter.Admit();
}

void OnComplaint(google::protobuf::LogLevel level, const char* file, int line,
                 const std::string& text) {
  if (level == google::protobuf::LOGLEVEL_FATAL) {
    google::protobuf::LogHandler* const former = g_former_handler;
    if (former != nullptr) former(level, file, line, text);
    return;  // protobuf ends the process.
  }
  ++g_complaints;
  if (!logging::ShouldCreateLogMessage(logging::LOGGING_WARNING)) return;
  if (const std::optional<std::uint64_t> left_out = AdmitLine()) {
    logging::LogMessage(file, line, logging::LOGGING_WARNING).stream()
        << "protobuf: " << text << net::LogLimiter::More(*left_out);
  }
}

#endif

}  // namespace

void ProtobufLog::Install() {
#ifdef VARNIC_HAS_PROTOBUF_LOG_HANDLER
  static const bool installed = [] {
    g_former_handler = google::protobuf::SetLogHandler(&OnComplaint);
    return true;
  }();
  static_cast<void>(installed);
#endif
}

std::uint64_t ProtobufLog::complaints() {
  return g_complaints;
}

}  // namespace varnic
