// Stop requests on POSIX: SIGINT and SIGTERM set the stop event (stop_signals.h).
#include "platform/console.h"

#include "platform/posix/stop_signals.h"

namespace orlenda::platform {

bool SetStopEvent(Event* stop) {
  if (stop == nullptr) return false;
  // Every request sets the event again; a second Ctrl+C while stopping is harmless.
  return TakeStopSignals([](void* event) { static_cast<Event*>(event)->Set(); }, stop);
}

}  // namespace orlenda::platform
