// One error space for system calls on both platforms: Windows error numbers. The POSIX bodies map
// the errno values that matter to these; any other errno is returned as kErrorPosixBase + errno.
#pragma once

#include <cstdint>

namespace orlenda::platform {

constexpr uint32_t kErrorSuccess = 0;
constexpr uint32_t kErrorFileNotFound = 2;
constexpr uint32_t kErrorAccessDenied = 5;
constexpr uint32_t kErrorInvalidHandle = 6;
constexpr uint32_t kErrorNotEnoughMemory = 8;
constexpr uint32_t kErrorInvalidParameter = 87;
constexpr uint32_t kErrorBrokenPipe = 109;
constexpr uint32_t kErrorSemTimeout = 121;
constexpr uint32_t kErrorAlreadyExists = 183;
constexpr uint32_t kErrorPipeBusy = 231;
constexpr uint32_t kErrorNoData = 232;
constexpr uint32_t kErrorPipeNotConnected = 233;
constexpr uint32_t kErrorMoreData = 234;
constexpr uint32_t kErrorPipeConnected = 535;
constexpr uint32_t kErrorOperationAborted = 995;
constexpr uint32_t kErrorPosixBase = 0x20000000;

// The calling thread's last system error (GetLastError / mapped errno).
uint32_t LastError();

}  // namespace orlenda::platform
