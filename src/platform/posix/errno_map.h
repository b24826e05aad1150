// errno values as the system's error numbers (errors.h), for every POSIX body.
#pragma once

#include <cerrno>
#include <cstdint>

#include "platform/errors.h"

namespace orlenda::platform {

inline uint32_t MapErrno(int error) {
  switch (error) {
    case 0: return kErrorSuccess;
    case ENOENT:
    case ECONNREFUSED:  // a socket file with nobody listening behind it: no such pipe
      return kErrorFileNotFound;
    case EACCES:
    case EPERM:
      return kErrorAccessDenied;
    case EEXIST: return kErrorAlreadyExists;
    case EPIPE:
    case ECONNRESET:
    case ENOTCONN:
      return kErrorPipeNotConnected;
    case EAGAIN:
#if EWOULDBLOCK != EAGAIN
    case EWOULDBLOCK:
#endif
      return kErrorPipeBusy;
    case EBADF: return kErrorInvalidHandle;
    case ENOMEM: return kErrorNotEnoughMemory;
    case EINVAL: return kErrorInvalidParameter;
    case ETIMEDOUT: return kErrorSemTimeout;
    default: return kErrorPosixBase + static_cast<uint32_t>(error);
  }
}

// The calling thread's errno, mapped.
inline uint32_t LastErrno() { return MapErrno(errno); }

}  // namespace orlenda::platform
