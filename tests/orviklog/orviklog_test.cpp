// Checks, log messages and their thresholds, locks and the clock.
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "orviklog/src/checks.h"
#include "orviklog/src/critical_section.h"
#include "orviklog/src/logging.h"
#include "orviklog/src/time_utils.h"

namespace {

int g_evaluations = 0;
int Counted(int v) { return ++g_evaluations, v; }

TEST(ChecksTest, PassingChecksEvaluateOperandsOnce) {
  CHECK(Counted(1) == 1) << "never printed";
  CHECK_EQ(Counted(2), 2) << "never printed";
  CHECK_LT(Counted(1), Counted(3));
  EXPECT_EQ(g_evaluations, 4);
}

// The report frame: blank lines, "#", the file and line, errno at the time
// of failure, the check text (with both values of a comparison), the user
// text, "#".
TEST(ChecksDeathTest, ReportFrameAndAbort) {
  EXPECT_DEATH(
      {
        errno = 0;
        int inited_ = 0;
        CHECK(inited_) << "not ready";
      },
      "\n\n#\n# Fatal error in .*orviklog_test\\.cpp, line [0-9]+\n"
      "# last system error: 0\n"
      "# Check failed: inited_\n"
      "# not ready\n#\n");
  EXPECT_DEATH(
      {
        unsigned long a = 6;
        unsigned int b = 7;
        errno = ENOENT;
        CHECK_EQ(a, b) << "sizes differ";
      },
      "# last system error: 2\n# Check failed: a == b \\(6 vs\\. 7\\)\n# sizes differ\n#\n");
  const std::string x = "relu", y = "tanh";
  EXPECT_DEATH(CHECK_EQ(x, y), "# Check failed: x == y \\(relu vs\\. tanh\\)\n# \n#\n");
}

class RecordingSink : public rtc::LogSink {
 public:
  void OnLogLine(const std::string& message) override { lines.push_back(message); }
  std::vector<std::string> lines;
};

int g_built = 0;
int Built() { return ++g_built; }

// Restores the process-wide thresholds after each case.
class LoggingTest : public ::testing::Test {
 protected:
  void TearDown() override {
    rtc::LogMessage::LogTimestamps(false);
    rtc::LogMessage::LogToDebug(rtc::LS_NONE);
  }
};

// Nothing is built at the initial thresholds; a message at a threshold
// passes it, one below does not.
TEST_F(LoggingTest, LogToDebugPrintsWithFileAndLinePrefix) {
  testing::internal::CaptureStderr();
  RTC_LOG(LS_ENGINE) << "Unknown type enum " << Built();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(g_built, 0);
  rtc::LogMessage::LogToDebug(rtc::LS_WARNING);
  testing::internal::CaptureStderr();
  const int line = __LINE__ + 1;
  RTC_LOG(LS_WARNING) << "Unknown type enum " << 9;
  RTC_LOG(LS_INFO) << "below the threshold";
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "(orviklog_test.cpp:" + std::to_string(line) + "): Unknown type enum 9\n");
}

TEST_F(LoggingTest, SinksGetWhatReachesTheirThreshold) {
  RecordingSink warn_sink, error_sink;
  rtc::LogMessage::AddLogToStream(&warn_sink, rtc::LS_WARNING);
  rtc::LogMessage::AddLogToStream(&error_sink, rtc::LS_ERROR);
  testing::internal::CaptureStderr();
  RTC_LOG(LS_INFO) << "dropped";
  RTC_LOG(LS_WARNING) << "w";
  RTC_LOG(LS_ENGINE) << "e";
  // Debug output stays off: only sinks receive.
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  ASSERT_EQ(warn_sink.lines.size(), 2u);
  ASSERT_EQ(error_sink.lines.size(), 1u);
  EXPECT_NE(warn_sink.lines[0].find("): w\n"), std::string::npos);
  EXPECT_NE(error_sink.lines[0].find("): e\n"), std::string::npos);
  // The lowest threshold left decides what is built.
  rtc::LogMessage::RemoveLogToStream(&warn_sink);
  EXPECT_EQ(rtc::LogMessage::GetMinLogSeverity(), rtc::LS_ERROR);
  rtc::LogMessage::RemoveLogToStream(&error_sink);
  EXPECT_EQ(rtc::LogMessage::GetMinLogSeverity(), rtc::LS_NONE);
}

TEST_F(LoggingTest, ConfigureLoggingSetsDebugLevelAndTimestamps) {
  rtc::LogMessage::ConfigureLogging("tstamp  warning debug");
  EXPECT_EQ(rtc::LogMessage::GetLogToDebug(), rtc::LS_WARNING);
  testing::internal::CaptureStderr();
  RTC_LOG(LS_WARNING) << "stamped";
  const std::string out = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(testing::internal::RE::PartialMatch(
      out, testing::internal::RE("^\\[[0-9][0-9][0-9]+:[0-9][0-9][0-9]\\] \\(orviklog_test")))
      << out;
  // "debug" takes the level that stands before it; none given means verbose.
  rtc::LogMessage::ConfigureLogging("debug");
  EXPECT_EQ(rtc::LogMessage::GetLogToDebug(), rtc::LS_VERBOSE);
  rtc::LogMessage::ConfigureLogging("error");  // no "debug": unchanged
  EXPECT_EQ(rtc::LogMessage::GetLogToDebug(), rtc::LS_VERBOSE);
}

class FixedClock : public rtc::ClockInterface {
 public:
  int64_t TimeNanos() const override { return 5 * rtc::kNumNanosecsPerSec + 7000; }
};

TEST(TimeAndLocksTest, TestClockReplacesTheSystemClockAndLocksAreRecursive) {
  FixedClock clock;
  rtc::ClockInterface* prev = rtc::SetClockForTesting(&clock);
  EXPECT_EQ(rtc::TimeMillis(), 5000);
  EXPECT_EQ(rtc::TimeMicros(), 5000007);
  rtc::SetClockForTesting(prev);
  EXPECT_EQ(rtc::TimeDiff32(2u, 0xFFFFFFFEu), 4);
  rtc::CriticalSection cs;
  rtc::CritScope outer(&cs);
  EXPECT_TRUE(rtc::TryCritScope(&cs).locked());
}

}  // namespace
