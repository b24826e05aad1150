// No power broadcast reaches a POSIX daemon: the window exists in name only.
#include "platform/power_window.h"

namespace orlenda::platform {

void PowerWindow::Start(QuerySuspend query, PowerEvent event) {
  query_ = query;
  event_ = event;
}

void PowerWindow::Main(void*) {}

void PowerWindow::Stop() {}

}  // namespace orlenda::platform
