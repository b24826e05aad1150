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

}  // namespace

platform::Event& LockStateChangedEvent() {
  static platform::Event event(platform::ResetMode::kAuto, false);
  return event;
}

bool PortTable::IsAnyPortLocked() {
  platform::CriticalSection* table = table_lock();
  if (table == nullptr) return false;
  platform::ScopedLock hold(*table);
  for (const auto& entry : map()) {
    COpenPort* port = entry.second;
    platform::ScopedLock queue(port->queue_lock());
    if (!port->queue().empty() && port->queue().front() != nullptr) return true;
  }
  return false;
}

void PortTable::PowerTransition(uint32_t event) {
  const bool suspend = event == kSuspend;
  const bool resume = IsResume(event);
  if (!suspend && !resume) return;

  platform::CriticalSection* table = table_lock();
  if (table == nullptr) return;
  platform::ScopedLock hold(*table);
  // The event is recorded even with no port open, so that a resume after a suspend that found no
  // port still reaches the ports opened in between.
  const bool repeated_resume = resume && IsResume(g_last_power_event);
  g_last_power_event = event;
  if (repeated_resume) return;

  for (const auto& entry : map()) {
    COpenPort* port = entry.second;
    if (suspend) {
      port->SetSuspended(true);
      port->StackIoctlDword(SK_POWER_STATE, kPowerSuspends);
    } else {
      port->StackIoctlDword(SK_POWER_STATE, kPowerResumes);
      port->SetSuspended(false);
    }
  }
}

}  // namespace orlenda
