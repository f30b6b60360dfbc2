#include "logging.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <iomanip>
#include <vector>

#include "critical_section.h"
#include "time_utils.h"

namespace rtc {

namespace {

// Guards the sink list and the thresholds.
const CriticalSection g_log_crit;

const char* FilenameFromPath(const char* file) {
  const char* end1 = ::strrchr(file, '/');
  const char* end2 = ::strrchr(file, '\\');
  if (!end1 && !end2) return file;
  return (end1 > end2) ? end1 + 1 : end2 + 1;
}

std::vector<std::string> Tokenize(const std::string& source, char delimiter) {
  std::vector<std::string> fields;
  size_t last = 0;
  for (size_t i = 0; i < source.length(); ++i) {
    if (source[i] == delimiter) {
      if (i != last) fields.push_back(source.substr(last, i - last));
      last = i + 1;
    }
  }
  if (last != source.length()) fields.push_back(source.substr(last));
  return fields;
}

}  // namespace

LogMessage::StreamList LogMessage::streams_;
LoggingSeverity LogMessage::min_sev_ = LS_NONE;
LoggingSeverity LogMessage::dbg_sev_ = LS_NONE;
bool LogMessage::log_to_stderr_ = true;
bool LogMessage::thread_ = false;
bool LogMessage::timestamp_ = false;

LogMessage::LogMessage(const char* file, int line, LoggingSeverity sev, LogErrorContext err_ctx,
                       int err, const char* module)
    : severity_(sev), tag_("libjingle") {
  if (timestamp_) {
    int64_t time = TimeSince(LogStartTime());
    WallClockStartTime();  // Fixed at its first call, like the start time.
    print_stream_ << "[" << std::setfill('0') << std::setw(3) << (time / 1000) << ":"
                  << std::setw(3) << (time % 1000) << std::setfill(' ') << "] ";
  }
  if (file != nullptr) {
    print_stream_ << "(" << FilenameFromPath(file) << ":" << line << "): ";
  }
  if (err_ctx != ERRCTX_NONE) {
    std::ostringstream tmp;
    tmp << "[0x" << std::setfill('0') << std::hex << std::setw(8) << err << "]";
    if (err_ctx == ERRCTX_ERRNO) tmp << " " << strerror(err);
    extra_ = tmp.str();
  }
  (void)module;
}

LogMessage::LogMessage(const char* file, int line, LoggingSeverity sev, const std::string& tag)
    : LogMessage(file, line, sev, ERRCTX_NONE, 0, nullptr) {
  tag_ = tag;
}

LogMessage::~LogMessage() {
  if (!extra_.empty()) print_stream_ << " : " << extra_;
  print_stream_ << std::endl;
  const std::string str = print_stream_.str();

  if (severity_ >= dbg_sev_) OutputToDebug(str, severity_, tag_);

  CritScope cs(&g_log_crit);
  for (auto& kv : streams_) {
    if (severity_ >= kv.second) kv.first->OnLogLine(str);
  }
}

int64_t LogMessage::LogStartTime() {
  static const int64_t g_start = SystemTimeMillis();
  return g_start;
}

uint32_t LogMessage::WallClockStartTime() {
  static const uint32_t g_start_wallclock = static_cast<uint32_t>(time(nullptr));
  return g_start_wallclock;
}

void LogMessage::LogThreads(bool on) { thread_ = on; }

void LogMessage::LogTimestamps(bool on) { timestamp_ = on; }

void LogMessage::LogToDebug(LoggingSeverity min_sev) {
  dbg_sev_ = min_sev;
  CritScope cs(&g_log_crit);
  UpdateMinLogSeverity();
}

void LogMessage::SetLogToStderr(bool log_to_stderr) { log_to_stderr_ = log_to_stderr; }

int LogMessage::GetLogToStream(LogSink* stream) {
  CritScope cs(&g_log_crit);
  LoggingSeverity sev = LS_NONE;
  for (auto& kv : streams_) {
    if (!stream || stream == kv.first) sev = std::min(sev, kv.second);
  }
  return sev;
}

void LogMessage::AddLogToStream(LogSink* stream, LoggingSeverity min_sev) {
  CritScope cs(&g_log_crit);
  streams_.push_back(std::make_pair(stream, min_sev));
  UpdateMinLogSeverity();
}

void LogMessage::RemoveLogToStream(LogSink* stream) {
  CritScope cs(&g_log_crit);
  for (auto it = streams_.begin(); it != streams_.end(); ++it) {
    if (stream == it->first) {
      streams_.erase(it);
      break;
    }
  }
  UpdateMinLogSeverity();
}

void LogMessage::ConfigureLogging(const char* params) {
  LoggingSeverity current_level = LS_VERBOSE;
  LoggingSeverity debug_level = GetLogToDebug();

  for (const std::string& token : Tokenize(params, ' ')) {
    if (token.empty()) continue;
    if (token == "tstamp") {
      LogTimestamps();
    } else if (token == "thread") {
      LogThreads();
    } else if (token == "sensitive") {
      current_level = LS_SENSITIVE;
    } else if (token == "verbose") {
      current_level = LS_VERBOSE;
    } else if (token == "info") {
      current_level = LS_INFO;
    } else if (token == "warning") {
      current_level = LS_WARNING;
    } else if (token == "error") {
      current_level = LS_ERROR;
    } else if (token == "none") {
      current_level = LS_NONE;
    } else if (token == "debug") {
      debug_level = current_level;
    }
  }
  LogToDebug(debug_level);
}

void LogMessage::UpdateMinLogSeverity() {
  LoggingSeverity min_sev = dbg_sev_;
  for (auto& kv : streams_) min_sev = std::min(min_sev, kv.second);
  min_sev_ = min_sev;
}

void LogMessage::OutputToDebug(const std::string& str, LoggingSeverity, const std::string&) {
  if (log_to_stderr_) {
    fputs(str.c_str(), stderr);
    fflush(stderr);
  }
}

}  // namespace rtc
