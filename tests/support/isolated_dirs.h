// Test support: gives a test process run and data folders of its own, so that test runs and a
// log service or broker already running on the machine never meet. On POSIX this points the
// documented overrides ($ORLENDA_RUN_DIR, $ORLENDA_DATA_DIR) at fresh temporary folders; the
// Windows build has no overrides and runs in a Wine prefix of the test run's own instead.
#pragma once

namespace orlenda::testing {

// Creates fresh folders and points the overrides at them. Call before the code under test runs.
void UseIsolatedDirs();

}  // namespace orlenda::testing
