// ServiceStart: the body of the running broker, shared by the run under the service manager and the
// console run.
//
// Start-up, in this order: make sure that only the administrators may change the data files
// (service_data.h; a refusal fails the start as a failed load does); load the properties, the
// configuration and the component modules (a failure reports stopped with exit code 3 and returns
// 575); the lock-change event; the suspend
// guard; the stop event; the server registry; the TCP server, then the pipe server, each registered
// and so started (one that cannot start stays registered and idle); report running.
//
// Running: wait on the stop event and the lock-change event. After every lock change the machine
// is kept awake (continuous + system-required) while any port is locked, and let sleep
// (continuous) otherwise; on the way out it is always let sleep before the servers go.
//
// Shutdown, in this order: the servers are destroyed (each stops its dispatcher and deletes its
// connections, which closes their ports), the events are let go, the components are unloaded, the
// suspend guard stops; what is queued for the log service is delivered.
#pragma once

#include <cstdint>

namespace orlenda {

class ServiceHost;

constexpr uint32_t kServiceStartFailed = 575;  // ERROR_APP_INIT_FAILURE
constexpr uint32_t kStartFailedExitCode = 3;

uint32_t ServiceStart(ServiceHost& host);

}  // namespace orlenda
