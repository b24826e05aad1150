// The system as the running service sees it: the service manager that starts it and takes its
// status (Windows: the Service Control Manager; POSIX: systemd's readiness notification, with
// SIGTERM and SIGINT as the stop control), the event log for what cannot go to the log service
// (Windows event log; POSIX syslog), the execution state that keeps the machine awake, and the
// console's interrupt (Ctrl+C / Ctrl+Break; POSIX SIGINT and SIGTERM).
//
// One interface, so that tests can stand in for the system and watch every status report.
#pragma once

#include <cstdint>

namespace orlenda::platform {

// Service states, controls and flags as the system numbers them.
constexpr uint32_t kServiceStopped = 1;
constexpr uint32_t kServiceStartPending = 2;
constexpr uint32_t kServiceStopPending = 3;
constexpr uint32_t kServiceRunning = 4;
constexpr uint32_t kServiceControlStop = 1;
constexpr uint32_t kServiceAcceptStop = 1;
constexpr uint32_t kServiceOwnProcess = 16;
// SetThreadExecutionState flags.
constexpr uint32_t kExecutionContinuous = 0x80000000u;
constexpr uint32_t kExecutionSystemRequired = 0x00000001u;

struct ServiceStatus {
  uint32_t service_type;
  uint32_t current_state;
  uint32_t controls_accepted;
  uint32_t win32_exit_code;
  uint32_t service_exit_code;
  uint32_t check_point;
  uint32_t wait_hint;
};

class ServiceSystem {
 public:
  using ServiceMain = void (*)();
  using ControlHandler = void (*)(uint32_t control);
  using InterruptHandler = void (*)();

  virtual ~ServiceSystem() = default;
  // Gives the process to the service manager, which runs `main` for the service `name` and returns
  // when it ended: 0, or the error that kept the dispatcher from running. On POSIX `main` runs at
  // once, a stop signal being the stop control.
  virtual uint32_t RunDispatcher(const char16_t* name, ServiceMain main) = 0;
  virtual bool RegisterControlHandler(const char16_t* name, ControlHandler handler) = 0;
  virtual bool SetStatus(const ServiceStatus& status) = 0;
  // One error event with two strings under `source`; false when the source cannot be registered.
  virtual bool WriteErrorEvent(const char16_t* source, const char16_t* first, const char16_t* second) = 0;
  virtual void SetExecutionState(uint32_t flags) = 0;
  virtual uint32_t LastError() = 0;
  // Calls `handler` on Ctrl+C or Ctrl+Break (POSIX: SIGINT or SIGTERM), on a thread of its own.
  virtual bool SetInterruptHandler(InterruptHandler handler) = 0;
};

// The real one.
ServiceSystem& TheServiceSystem();

}  // namespace orlenda::platform
