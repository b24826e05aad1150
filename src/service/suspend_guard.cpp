#include "service/suspend_guard.h"

#include "logging/log.h"
#include "ports/port_table.h"

namespace orlenda {

void SuspendGuard::Start() { window_.Start(&MaySuspend, &OnPowerEvent); }

bool SuspendGuard::MaySuspend() {
  if (!PortTable::IsAnyPortLocked()) return true;
  Log(4, u"Suspend denied - there is a locked port");
  return false;
}

void SuspendGuard::OnPowerEvent(uint32_t event) { PortTable::PowerTransition(event); }

}  // namespace orlenda
