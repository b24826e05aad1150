// The command-line verbs that work the service manager: install, remove, stop and start. Each
// returns the exit code (0, or the failing call's error; 1077 when a started service does not reach
// running, 3017 when a removed service does not stop). Every message begins with the display name
// and goes to the log service at level 4 (and, in these tool modes, to the console).
//
// Without a service manager (POSIX, where the services are systemd units) the verbs say so and how
// to use the units instead, and fail with kErrorNotSupported; remove still deletes the data files.
#pragma once

#include <cstdint>

namespace orlenda {

class ServiceHost;

// Registers the service (own process, started automatically, LocalSystem, the running executable
// with no arguments, depending on the identity's dependency), then lets the identity prepare its
// data (the default configuration, never over an existing one).
uint32_t InstallService(ServiceHost& host);
// Stops the identity's stop target and waits while it is stop-pending.
uint32_t StopService(ServiceHost& host);
// Deletes the service first, then stops it (waiting at most ten more seconds), and in every case
// deletes the data files.
uint32_t RemoveService(ServiceHost& host);
// Starts the installed service and waits, up to 120 polls a second apart, for it to leave
// start-pending.
uint32_t StartInstalledService(ServiceHost& host);

}  // namespace orlenda
