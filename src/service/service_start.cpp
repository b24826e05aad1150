#include "service/service_start.h"

#include "common/heap.h"
#include "components/configuration.h"
#include "connections/pipe_server.h"
#include "connections/tcp_server.h"
#include "logging/log.h"
#include "platform/service_system.h"
#include "ports/port_table.h"
#include "service/server_registry.h"
#include "service/service_data.h"
#include "service/service_host.h"
#include "service/suspend_guard.h"

namespace orlenda {
namespace {

constexpr uint32_t kShutdownFlushMs = 2000;

}  // namespace

uint32_t ServiceStart(ServiceHost& host) {
  platform::ServiceSystem& system = host.system();
  WString refusal;
  if (!SecureServiceData(host, &refusal)) {
    Log(0, u"%s", refusal);
    host.ReportError(refusal);
    host.ReportStatus(platform::kServiceStopped, kStartFailedExitCode, 0);
    return kServiceStartFailed;
  }
  if (!CConfiguration::Load()) {
    host.ReportStatus(platform::kServiceStopped, kStartFailedExitCode, 0);
    return kServiceStartFailed;
  }
  // The lock-change event is the port layer's own (it sets it after every lock and unlock): start
  // from unsignalled.
  platform::Event& lock_changed = LockStateChangedEvent();
  lock_changed.Wait(0);
  SuspendGuard guard;
  guard.Start();
  host.stop_event().Reset();
  CreateServerRegistry();
  RegisterServer(HeapNew<TCPServer>());
  RegisterServer(HeapNew<CPipeServer>());

  if (host.ReportStatus(platform::kServiceRunning, 0, 0)) {
    platform::Event* events[] = {&host.stop_event(), &lock_changed};
    while (platform::WaitForAny(events, 2, platform::kInfinite) == 1) {
      system.SetExecutionState(PortTable::IsAnyPortLocked()
                                   ? platform::kExecutionContinuous | platform::kExecutionSystemRequired
                                   : platform::kExecutionContinuous);
    }
    system.SetExecutionState(platform::kExecutionContinuous);
  }

  DestroyAllServers();
  host.stop_event().Reset();
  CConfiguration::Unload();
  guard.Stop();
  FlushLog(kShutdownFlushMs);
  return 0;
}

}  // namespace orlenda
