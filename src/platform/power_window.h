// The system's power broadcasts reach a service only through a window: a hidden window named
// "Suspend/Resume Handler", on a thread of its own, that asks whether the system may suspend and
// hands every other power event on. POSIX has no such broadcast; there the window does nothing.
#pragma once

#include <cstdint>

#include "platform/sync.h"
#include "platform/thread.h"

namespace orlenda::platform {

class PowerWindow {
 public:
  // Whether the system may suspend now (the suspend query). Called on the window's thread.
  using QuerySuspend = bool (*)();
  // Any other power event, by its number. Called on the window's thread.
  using PowerEvent = void (*)(uint32_t event);

  PowerWindow() = default;
  ~PowerWindow() { Stop(); }
  PowerWindow(const PowerWindow&) = delete;
  PowerWindow& operator=(const PowerWindow&) = delete;

  // Creates the window and its thread. If the window class cannot be registered the thread ends
  // at once and no query is ever refused.
  void Start(QuerySuspend query, PowerEvent event);
  // Closes the window and waits for its thread. Returns at once when nothing runs.
  void Stop();

 private:
  static void Main(void* self);

  QuerySuspend query_ = nullptr;
  PowerEvent event_ = nullptr;
  uintptr_t window_ = 0;
  Event done_{ResetMode::kManual, true};
  Event created_{ResetMode::kManual, false};
  Thread thread_;
};

}  // namespace orlenda::platform
