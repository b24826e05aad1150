// The stop request of a foreground process: Ctrl+C / Ctrl+Break / console close on Windows,
// SIGINT / SIGTERM on POSIX.
#pragma once

#include "platform/sync.h"

namespace orlenda::platform {

// From now on a stop request sets `stop` (which must outlive the process's use of it) instead of
// ending the process. Call once, early in main, before other threads start.
bool SetStopEvent(Event* stop);

}  // namespace orlenda::platform
