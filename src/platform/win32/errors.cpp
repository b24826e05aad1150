#include "platform/errors.h"

#include "platform/win32/windows.h"

namespace orlenda::platform {

uint32_t LastError() { return GetLastError(); }

}  // namespace orlenda::platform
