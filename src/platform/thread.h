// Threads and time.
#pragma once

#include <cstdint>

namespace orlenda::platform {

// A joinable thread. The destructor joins a thread that was started and not yet joined.
class Thread {
 public:
  using Entry = void (*)(void* arg);

  Thread() = default;
  ~Thread();
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  // Starts `entry(arg)` on a new thread. False when the system refuses; the object is then unchanged.
  bool Start(Entry entry, void* arg);
  // Waits for the thread to end. Does nothing when no thread is running.
  void Join();
  bool joinable() const { return handle_ != 0; }

 private:
  uintptr_t handle_ = 0;
};

// Starts `entry(arg)` on a thread that nobody joins: it ends on its own. False when the system
// refuses.
bool StartDetachedThread(Thread::Entry entry, void* arg);

void SleepMs(uint32_t ms);

// Milliseconds since an arbitrary start, wrapping at 2^32 like GetTickCount.
uint32_t TickCountMs();

// The system time as a FILETIME value: UTC, 100-nanosecond units since 1601-01-01.
uint64_t FileTimeNow();

struct LocalTime {
  uint16_t year, month, day, hour, minute, second, millisecond;
};
// A FILETIME value as the local wall-clock time.
LocalTime ToLocalTime(uint64_t filetime);

uint32_t CurrentProcessId();
uint32_t CurrentThreadId();

}  // namespace orlenda::platform
