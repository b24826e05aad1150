// The presence object of a service: on Windows a named event "Global\<name>" that the service holds
// while it runs; on POSIX a lock file "<run dir>/<name>" held with flock.
#pragma once

#include <cstdint>

namespace orlenda::platform {

// Whether some process holds the presence object `name`. On Windows: CreateEventW (manual reset,
// not set); with a handle, present only when it already existed (the handle is closed at once);
// without one, present only when access was denied. On POSIX: the lock file exists and is locked.
bool IsPresenceHeld(const char16_t* name);

class PresenceObject {
 public:
  PresenceObject() = default;
  ~PresenceObject() { Release(); }
  PresenceObject(const PresenceObject&) = delete;
  PresenceObject& operator=(const PresenceObject&) = delete;

  // Takes the presence object. Fails with kErrorAlreadyExists when another holder has it. On
  // Windows a presence test elsewhere makes the event exist for an instant: an event that exists
  // is looked at again for about 50 ms before Acquire concludes it has a holder.
  uint32_t Acquire(const char16_t* name);
  void Release();
  bool held() const { return handle_ != kNone; }

 private:
  static constexpr intptr_t kNone = -1;
  intptr_t handle_ = kNone;
};

}  // namespace orlenda::platform
