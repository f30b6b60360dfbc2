#ifndef ORVIKLOG_LOGGING_H_
#define ORVIKLOG_LOGGING_H_

// A severity-filtered log stream for the engine.  With the initial
// thresholds (LS_NONE) nothing is printed and a log statement costs one
// comparison; an embedding program may turn output on with LogToDebug(),
// AddLogToStream() or ConfigureLogging().

#include <list>
#include <sstream>
#include <string>
#include <utility>

#include "checks.h"

namespace rtc {

enum LoggingSeverity {
  LS_SENSITIVE = 0,
  LS_VERBOSE = 1,
  LS_INFO = 3,
  LS_WARNING = 4,
  LS_ERROR = 5,
  // The level of most of the engine's log statements; it has no keyword.
  LS_ENGINE = 6,
  LS_NONE = 7,
};

enum LogErrorContext { ERRCTX_NONE = 0, ERRCTX_ERRNO = 1 };

// Receives every message whose severity reaches the sink's threshold.
class LogSink {
 public:
  LogSink() {}
  virtual ~LogSink() {}
  virtual void OnLogLine(const std::string& message) = 0;
};

class LogMessage {
 public:
  LogMessage(const char* file, int line, LoggingSeverity sev, LogErrorContext err_ctx = ERRCTX_NONE,
             int err = 0, const char* module = nullptr);
  LogMessage(const char* file, int line, LoggingSeverity sev, const std::string& tag);
  ~LogMessage();
  LogMessage(const LogMessage&) = delete;
  LogMessage& operator=(const LogMessage&) = delete;

  std::ostream& stream() { return print_stream_; }

  // The fast test at every log statement.
  static bool Loggable(LoggingSeverity sev) { return sev >= min_sev_; }

  // Milliseconds since the first call to LogStartTime().
  static int64_t LogStartTime();
  // Wall-clock seconds at the first call.
  static uint32_t WallClockStartTime();

  static void LogThreads(bool on = true);
  static void LogTimestamps(bool on = true);
  static void LogToDebug(LoggingSeverity min_sev);
  static LoggingSeverity GetLogToDebug() { return dbg_sev_; }
  static void SetLogToStderr(bool log_to_stderr);
  static void AddLogToStream(LogSink* stream, LoggingSeverity min_sev);
  static void RemoveLogToStream(LogSink* stream);
  // The lowest threshold among the entries of `stream` (of all sinks for
  // nullptr), LS_NONE if there is none.
  static int GetLogToStream(LogSink* stream = nullptr);
  // "tstamp", "thread", a severity keyword, "debug"; separated by spaces.
  static void ConfigureLogging(const char* params);
  static int GetMinLogSeverity() { return min_sev_; }

 private:
  typedef std::pair<LogSink*, LoggingSeverity> StreamAndSeverity;
  typedef std::list<StreamAndSeverity> StreamList;

  static void UpdateMinLogSeverity();
  static void OutputToDebug(const std::string& msg, LoggingSeverity severity,
                            const std::string& tag);

  std::ostringstream print_stream_;
  LoggingSeverity severity_;
  std::string tag_;
  std::string extra_;

  static StreamList streams_;
  static LoggingSeverity min_sev_;
  static LoggingSeverity dbg_sev_;
  static bool log_to_stderr_;
  static bool thread_;
  static bool timestamp_;
};

// Turns the stream expression of RTC_LOG into a void expression.
class LogMessageVoidify {
 public:
  void operator&(std::ostream&) {}
};

}  // namespace rtc

// RTC_LOG(LS_WARNING) << "text";  builds nothing below the threshold.
#define RTC_LOG(sev)                   \
  !rtc::LogMessage::Loggable(rtc::sev) \
      ? (void)0                        \
      : rtc::LogMessageVoidify() & rtc::LogMessage(__FILE__, __LINE__, rtc::sev).stream()

#endif  // ORVIKLOG_LOGGING_H_
