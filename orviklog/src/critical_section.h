#ifndef ORVIKLOG_CRITICAL_SECTION_H_
#define ORVIKLOG_CRITICAL_SECTION_H_

#include <pthread.h>

#include <atomic>
#include <cstdint>

namespace rtc {

// A recursive mutex.
class CriticalSection {
 public:
  CriticalSection();
  ~CriticalSection();
  CriticalSection(const CriticalSection&) = delete;
  CriticalSection& operator=(const CriticalSection&) = delete;

  void Enter() const;
  bool TryEnter() const;
  void Leave() const;

 private:
  mutable pthread_mutex_t mutex_;
};

class CritScope {
 public:
  explicit CritScope(const CriticalSection* cs) : cs_(cs) { cs_->Enter(); }
  ~CritScope() { cs_->Leave(); }
  CritScope(const CritScope&) = delete;
  CritScope& operator=(const CritScope&) = delete;

 private:
  const CriticalSection* const cs_;
};

class TryCritScope {
 public:
  explicit TryCritScope(const CriticalSection* cs) : cs_(cs), locked_(cs->TryEnter()) {}
  ~TryCritScope() {
    if (locked_) cs_->Leave();
  }
  TryCritScope(const TryCritScope&) = delete;
  TryCritScope& operator=(const TryCritScope&) = delete;
  bool locked() const { return locked_; }

 private:
  const CriticalSection* const cs_;
  const bool locked_;
};

// A spin lock on one 32-bit word, usable as a zero-initialised global:
// taken by exchanging 0 for 1, yielding with a zero-length sleep between
// tries.
class GlobalLockPod {
 public:
  void Lock();
  void Unlock();

  std::atomic<int32_t> lock_acquired;
};

class GlobalLockScope {
 public:
  explicit GlobalLockScope(GlobalLockPod* lock) : lock_(lock) { lock_->Lock(); }
  ~GlobalLockScope() { lock_->Unlock(); }
  GlobalLockScope(const GlobalLockScope&) = delete;
  GlobalLockScope& operator=(const GlobalLockScope&) = delete;

 private:
  GlobalLockPod* const lock_;
};

}  // namespace rtc

#endif  // ORVIKLOG_CRITICAL_SECTION_H_
