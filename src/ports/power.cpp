// Power transitions, the locked-port query and the lock-state-changed event: what the suspend
// guard and the service thread need of the port layer.
#include <atomic>

#include "common/result_codes.h"
#include "ports/port_table.h"

namespace orlenda {
namespace {

constexpr uint32_t kSuspend = 4;
constexpr uint32_t kPowerSuspends = 1;
constexpr uint32_t kPowerResumes = 2;

bool IsResume(uint32_t event) { return event == 6 || event == 7 || event == 18; }

// The last power event passed on; read and written under the port-table lock.
uint32_t g_last_power_event = 0;

// One transition at a time reaches the stacks, in the order they were decided.
platform::CriticalSection& PowerLock() {
  static platform::CriticalSection lock;
  return lock;
}

}  // namespace

platform::Event& LockStateChangedEvent() {
  static platform::Event event(platform::ResetMode::kAuto, false);
  return event;
}

bool PortTable::IsAnyPortLocked() {
  // Read without the port-table lock or any lock-queue lock: a lock request waiting for a slow
  // device must not hold up the suspend guard, nor the guard every Open.
  platform::ScopedLock hold(lookup_lock());
  for (const auto& entry : map()) {
    if (entry.second->locked()) return true;
  }
  return false;
}

void PortTable::PowerTransition(uint32_t event) {
  const bool suspend = event == kSuspend;
  const bool resume = IsResume(event);
  if (!suspend && !resume) return;

  platform::CriticalSection* table = table_lock();
  if (table == nullptr) return;
  platform::ScopedLock one_at_a_time(PowerLock());

  // The ports are chosen, and the suspended flag set, under the port-table lock; their stacks are
  // told after it is left. Each call is counted before the port is checked to be still in the
  // table, so a Close that took it out meanwhile either waits for the call or is not called.
  HeapVector<PortRef> ports;
  {
    platform::ScopedLock hold(*table);
    // The event is recorded even with no port open, so that a resume after a suspend that found no
    // port still reaches the ports opened in between.
    const bool repeated_resume = resume && IsResume(g_last_power_event);
    g_last_power_event = event;
    if (repeated_resume) return;
    for (const auto& entry : map()) {
      PortRef port = Find(entry.first);
      if (!port) continue;  // still opening
      if (suspend) port->SetSuspended(true);
      ports.push_back(std::move(port));
    }
  }
  for (PortRef& port : ports) {
    CallScope call(port.get());
    if (!IsPublished(port.get())) continue;
    if (suspend) {
      port->StackIoctlDword(SK_POWER_STATE, kPowerSuspends);
    } else {
      port->StackIoctlDword(SK_POWER_STATE, kPowerResumes);
      port->SetSuspended(false);
    }
  }
}

}  // namespace orlenda
