// Named pipe clients on Windows. The handle is opened without FILE_FLAG_OVERLAPPED: a write returns
// once the pipe has taken its bytes.
#include "platform/pipe.h"

#include "platform/errors.h"
#include "platform/sync.h"
#include "platform/win32/pipe_server.h"
#include "platform/win32/windows.h"

namespace orlenda::platform {
namespace {

constexpr DWORD kWaitPollMs = 10;

HANDLE AsHandle(intptr_t handle) { return reinterpret_cast<HANDLE>(handle); }

}  // namespace

uint32_t PipeStream::Write(const void* data, uint32_t size, uint32_t* written) {
  *written = 0;
  if (!is_open()) return kErrorInvalidHandle;
  DWORD done = 0;
  const BOOL ok = WriteFile(AsHandle(handle_), data, size, &done, nullptr);
  *written = done;
  return ok ? kErrorSuccess : GetLastError();
}

void PipeStream::Close() {
  if (!is_open()) return;
  CloseHandle(AsHandle(handle_));
  handle_ = kClosed;
}

uint32_t PipeStream::Open(const char16_t* name, bool read_access) {
  Close();
  wchar_t full[kMaxPipeName];
  if (!FullPipeName(name, full)) return kErrorInvalidParameter;
  DWORD access = GENERIC_WRITE | (read_access ? GENERIC_READ : 0);
  HANDLE handle = CreateFileW(full, access, 0, nullptr, OPEN_EXISTING, 0, nullptr);
  if (handle == INVALID_HANDLE_VALUE) return GetLastError();
  handle_ = reinterpret_cast<intptr_t>(handle);
  return kErrorSuccess;
}

uint32_t PipeStream::SetReadMode(PipeMode mode) {
  if (!is_open()) return kErrorInvalidHandle;
  DWORD read_mode = mode == PipeMode::kMessage ? PIPE_READMODE_MESSAGE : PIPE_READMODE_BYTE;
  return SetNamedPipeHandleState(AsHandle(handle_), &read_mode, nullptr, nullptr) ? kErrorSuccess
                                                                                  : GetLastError();
}

uint32_t WaitForPipe(const char16_t* name, uint32_t timeout_ms) {
  wchar_t full[kMaxPipeName];
  if (!FullPipeName(name, full)) return kErrorInvalidParameter;
  const DWORD start = GetTickCount();
  for (;;) {
    if (WaitNamedPipeW(full, timeout_ms)) return kErrorSuccess;
    DWORD error = GetLastError();
    // A missing pipe fails at once. Spend the time-out here, so that a caller retrying in a loop
    // does not spin; a wait without end keeps looking for the pipe instead.
    if (error != ERROR_FILE_NOT_FOUND) return error;
    DWORD elapsed = GetTickCount() - start;
    if (timeout_ms != kInfinite) {
      if (elapsed < timeout_ms) Sleep(timeout_ms - elapsed);
      return error;
    }
    Sleep(kWaitPollMs);
  }
}

}  // namespace orlenda::platform
