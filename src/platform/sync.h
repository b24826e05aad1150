// Locks and events.
//
// CriticalSection is re-entrant: the owning thread may enter it again and must leave it as often.
// Event follows the Windows event: manual-reset events stay set until Reset and release every waiter;
// auto-reset events release exactly one waiter and reset themselves as they do.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orlenda::platform {

constexpr uint32_t kInfinite = 0xFFFFFFFFu;

class CriticalSection {
 public:
  CriticalSection();
  ~CriticalSection();
  CriticalSection(const CriticalSection&) = delete;
  CriticalSection& operator=(const CriticalSection&) = delete;

  void Enter();
  void Leave();
  bool TryEnter();

 private:
  struct Impl;
  Impl* impl_;
};

class ScopedLock {
 public:
  explicit ScopedLock(CriticalSection& cs) : cs_(cs) { cs_.Enter(); }
  ~ScopedLock() { cs_.Leave(); }
  ScopedLock(const ScopedLock&) = delete;
  ScopedLock& operator=(const ScopedLock&) = delete;

 private:
  CriticalSection& cs_;
};

enum class ResetMode { kManual, kAuto };

class Event {
 public:
  explicit Event(ResetMode mode, bool initially_set = false);
  ~Event();
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  void Set();
  void Reset();
  // True when the event was (or became) set within the time-out; an auto-reset event is consumed.
  bool Wait(uint32_t timeout_ms);

  struct Impl;
  Impl* impl() const { return impl_; }

 private:
  Impl* impl_;
};

constexpr int kWaitTimeout = -1;
constexpr std::size_t kMaxWaitObjects = 64;

// Waits until at least one of `events` is set, or the time-out passes. Returns the index of the set
// event; when several are set, the lowest index wins, and only that event is consumed if it resets
// automatically. Returns kWaitTimeout on time-out. At most kMaxWaitObjects events.
int WaitForAny(Event* const* events, std::size_t count, uint32_t timeout_ms);

}  // namespace orlenda::platform
