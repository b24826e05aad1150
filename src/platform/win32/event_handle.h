// The Windows event behind a platform Event, for the bodies that wait on it with other objects.
#pragma once

#include "platform/sync.h"
#include "platform/win32/windows.h"

namespace orlenda::platform {

HANDLE EventHandle(const Event& event);

}  // namespace orlenda::platform
