#include "platform/console.h"

#include <atomic>

#include "platform/win32/windows.h"

namespace orlenda::platform {
namespace {

std::atomic<Event*> g_stop{nullptr};

// Runs on a thread the system starts for the console event.
BOOL WINAPI OnConsoleControl(DWORD type) {
  switch (type) {
    case CTRL_C_EVENT:
    case CTRL_BREAK_EVENT:
    case CTRL_CLOSE_EVENT: {
      Event* stop = g_stop.load();
      if (stop == nullptr) return FALSE;
      stop->Set();
      return TRUE;
    }
    default:
      return FALSE;  // log-off and shut-down: the default handling
  }
}

}  // namespace

bool SetStopEvent(Event* stop) {
  if (stop == nullptr) return false;
  g_stop.store(stop);
  return SetConsoleCtrlHandler(OnConsoleControl, TRUE) != FALSE;
}

}  // namespace orlenda::platform
