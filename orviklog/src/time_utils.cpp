#include "time_utils.h"

#include <time.h>

namespace rtc {

namespace {
ClockInterface* g_clock = nullptr;
}  // namespace

ClockInterface* SetClockForTesting(ClockInterface* clock) {
  ClockInterface* prev = g_clock;
  g_clock = clock;
  return prev;
}

int64_t SystemTimeNanos() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * kNumNanosecsPerSec + ts.tv_nsec;
}

int64_t SystemTimeMillis() { return SystemTimeNanos() / kNumNanosecsPerMillisec; }

int64_t TimeNanos() {
  if (g_clock) return g_clock->TimeNanos();
  return SystemTimeNanos();
}

int64_t TimeMicros() { return TimeNanos() / kNumNanosecsPerMicrosec; }

int64_t TimeMillis() { return TimeNanos() / kNumNanosecsPerMillisec; }

uint32_t Time32() { return static_cast<uint32_t>(TimeMillis()); }

int64_t TimeAfter(int64_t elapsed_ms) { return TimeMillis() + elapsed_ms; }

int64_t TimeDiff(int64_t later, int64_t earlier) { return later - earlier; }

int32_t TimeDiff32(uint32_t later, uint32_t earlier) {
  // Wrap-around safe: the unsigned difference read as signed.
  return static_cast<int32_t>(later - earlier);
}

}  // namespace rtc
