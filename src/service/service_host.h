// The service host: the entry of a service executable. One executable runs as a service under the
// system's service manager, in a console for diagnosis ("-debug"), or as a command-line tool that
// installs, removes, stops or starts the service. The broker ("Orlenda") and its log service
// ("OrlendaLog") are both hosted this way; what differs is their identity and their body.
//
// Status reports: start-pending (wait hint 3000 ms, no control accepted) -> running (reported by
// the body) -> stop-pending (on the stop control) -> stopped (exit code = the last error recorded).
// Every report that is neither running nor stopped carries the next check point (from 1). In the
// console run nothing is reported and nothing goes to the event log.
//
// The status record is written from the service's thread and from the control handler without a
// lock, as both only report and set the stop event.
#pragma once

#include <atomic>
#include <cstdint>

#include "common/wide_string.h"
#include "platform/service_system.h"
#include "platform/sync.h"

namespace orlenda {

class ServiceHost;

struct ServiceIdentity {
  const char16_t* name;          // the name the service manager knows: "Orlenda"
  const char16_t* display_name;  // "Orlenda Service"; every message of the host begins with it
  const char16_t* event_source;  // the event log's source: "Orlenda"
  const char16_t* dependency;    // the service that must run first, or null
  const char16_t* stop_target;   // the service the "stop" verb stops
  const char16_t* unit;          // where there is no service manager: the systemd unit's name
  // Install: makes what the service needs to start (its default configuration); 0 or an error.
  uint32_t (*prepare_data)(ServiceHost& host);
  // Remove: deletes the service's data files; 0 or an error.
  uint32_t (*remove_data)(ServiceHost& host);
  // The broker's console run reads its body's result in reverse, as it always has (a failed start
  // exits with 0, a normal stop with the last error); a service without that history does not.
  bool console_result_reversed;
};

class ServiceHost {
 public:
  // The service's work: serves until the stop event, then tears down. 0 after a normal stop,
  // another value when the start failed (it has reported stopped itself then).
  using Body = uint32_t (*)(ServiceHost& host);

  ServiceHost(const ServiceIdentity& identity, Body body, platform::ServiceSystem& system);
  ~ServiceHost();
  ServiceHost(const ServiceHost&) = delete;
  ServiceHost& operator=(const ServiceHost&) = delete;

  // The executable's main: picks the run mode from the command line; returns the exit code.
  int Main(int argc, const char* const* argv);

  // What the service manager calls (public for tests, which stand in for it).
  void ServiceMain();
  void OnControl(uint32_t control);

  // Reports a state; nonzero on success (always in the console run).
  bool ReportStatus(uint32_t state, uint32_t exit_code, uint32_t wait_hint);
  // Records the system's last error and writes one error event: "<source> error: %d" and the
  // message. Nothing in the console run.
  void ReportError(const WString& message);
  // Sets the stop event the body waits on.
  void SignalStop() { stop_.Set(); }

  // A message of the host: to the log service at level 4, and in the tool modes to the console too.
  void Say(const WString& message, uint32_t level = 4);
  // "<display name>: " followed by `text`.
  WString Message(WStringView text) const;

  const ServiceIdentity& identity() const { return identity_; }
  platform::ServiceSystem& system() { return system_; }
  platform::Event& stop_event() { return stop_; }
  bool console_mode() const { return console_.load(std::memory_order_acquire); }
  uint32_t last_error() const { return last_error_; }
  const platform::ServiceStatus& status() const { return status_; }

 private:
  int RunConsole();

  const ServiceIdentity& identity_;
  const Body body_;
  platform::ServiceSystem& system_;
  platform::ServiceStatus status_{};
  uint32_t check_point_ = 1;
  std::atomic<bool> console_{false};
  bool tool_mode_ = false;
  uint32_t last_error_ = 0;
  platform::Event stop_{platform::ResetMode::kManual, false};
};

}  // namespace orlenda
