#ifndef ORVIKLOG_TIME_UTILS_H_
#define ORVIKLOG_TIME_UTILS_H_

#include <cstdint>

namespace rtc {

constexpr int64_t kNumMillisecsPerSec = 1000;
constexpr int64_t kNumMicrosecsPerSec = 1000000;
constexpr int64_t kNumNanosecsPerSec = 1000000000;
constexpr int64_t kNumNanosecsPerMillisec = kNumNanosecsPerSec / kNumMillisecsPerSec;
constexpr int64_t kNumNanosecsPerMicrosec = kNumNanosecsPerSec / kNumMicrosecsPerSec;

// A replaceable clock, for tests that need time to stand still.
class ClockInterface {
 public:
  virtual ~ClockInterface() {}
  virtual int64_t TimeNanos() const = 0;
};

// Installs `clock` as the source of TimeNanos() and returns the previous
// one; nullptr restores the system clock.
ClockInterface* SetClockForTesting(ClockInterface* clock);

// CLOCK_MONOTONIC, unaffected by any test clock.
int64_t SystemTimeNanos();
int64_t SystemTimeMillis();

// The test clock if one is set, else the monotonic clock.
int64_t TimeNanos();
int64_t TimeMicros();
int64_t TimeMillis();
uint32_t Time32();

int64_t TimeAfter(int64_t elapsed_ms);
int64_t TimeDiff(int64_t later, int64_t earlier);
int32_t TimeDiff32(uint32_t later, uint32_t earlier);
inline int64_t TimeSince(int64_t earlier) { return TimeMillis() - earlier; }

}  // namespace rtc

#endif  // ORVIKLOG_TIME_UTILS_H_
