// The suspend guard: the hidden power window of the service, wired to the port layer. While any
// port is locked by a client, the system's request to suspend is refused ("Suspend denied - there
// is a locked port"), so that a device in the middle of a locked transaction is not put to sleep;
// every other power event goes to the port layer's power transition (a suspend makes the ports
// answer SKR_SUSPENDED, a resume restores them). POSIX has no such request: the guard does nothing.
#pragma once

#include "platform/power_window.h"

namespace orlenda {

class SuspendGuard {
 public:
  void Start();
  // Closes the window and waits for its thread.
  void Stop() { window_.Stop(); }

  // The window's answers, public for tests: whether the system may suspend now, and any other event.
  static bool MaySuspend();
  static void OnPowerEvent(uint32_t event);

 private:
  platform::PowerWindow window_;
};

}  // namespace orlenda
