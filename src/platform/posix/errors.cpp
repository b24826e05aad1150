#include "platform/errors.h"

#include "platform/posix/errno_map.h"

namespace orlenda::platform {

uint32_t LastError() { return LastErrno(); }

}  // namespace orlenda::platform
