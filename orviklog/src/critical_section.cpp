#include "critical_section.h"

#include <time.h>

namespace rtc {

CriticalSection::CriticalSection() {
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&mutex_, &attr);
  pthread_mutexattr_destroy(&attr);
}

CriticalSection::~CriticalSection() { pthread_mutex_destroy(&mutex_); }

void CriticalSection::Enter() const { pthread_mutex_lock(&mutex_); }

bool CriticalSection::TryEnter() const { return pthread_mutex_trylock(&mutex_) == 0; }

void CriticalSection::Leave() const { pthread_mutex_unlock(&mutex_); }

void GlobalLockPod::Lock() {
  const struct timespec ts_null = {0, 0};
  int32_t expected = 0;
  while (!lock_acquired.compare_exchange_weak(expected, 1, std::memory_order_acquire)) {
    expected = 0;
    nanosleep(&ts_null, nullptr);
  }
}

void GlobalLockPod::Unlock() { lock_acquired.store(0, std::memory_order_release); }

}  // namespace rtc
