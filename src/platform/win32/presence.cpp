// The presence object on Windows: a named event in the global namespace that the holder keeps open.
#include "platform/presence.h"

#include "platform/errors.h"
#include "platform/win32/windows.h"

namespace orlenda::platform {
namespace {

constexpr wchar_t kGlobalPrefix[] = L"Global\\";
constexpr std::size_t kMaxName = MAX_PATH;
constexpr int kAcquireAttempts = 5;
constexpr DWORD kAcquirePauseMs = 10;

// "Global\<name>" into `out`; false when it does not fit.
bool GlobalName(const char16_t* name, wchar_t* out) {
  std::size_t used = 0;
  for (const wchar_t* c = kGlobalPrefix; *c != 0; ++c) out[used++] = *c;
  for (const char16_t* c = name; *c != 0; ++c) {
    if (used + 1 >= kMaxName) return false;
    out[used++] = static_cast<wchar_t>(*c);
  }
  out[used] = 0;
  return true;
}

}  // namespace

bool IsPresenceHeld(const char16_t* name) {
  wchar_t full[kMaxName];
  if (!GlobalName(name, full)) return false;
  HANDLE handle = CreateEventW(nullptr, TRUE, FALSE, full);
  if (handle != nullptr) {
    DWORD error = GetLastError();
    CloseHandle(handle);
    return error == ERROR_ALREADY_EXISTS;
  }
  // The holder runs as a service: its event may exist and still be closed to us.
  return GetLastError() == ERROR_ACCESS_DENIED;
}

uint32_t PresenceObject::Acquire(const char16_t* name) {
  if (held()) return kErrorAlreadyExists;
  wchar_t full[kMaxName];
  if (!GlobalName(name, full)) return kErrorInvalidParameter;
  // The presence test of a writer makes the event exist for an instant, so an event that exists
  // may be nobody's: a holder keeps it, a test lets go at once. Look again for a short while.
  for (int attempt = 0;; ++attempt) {
    HANDLE handle = CreateEventW(nullptr, TRUE, FALSE, full);
    if (handle == nullptr) return GetLastError();
    if (GetLastError() != ERROR_ALREADY_EXISTS) {
      handle_ = reinterpret_cast<intptr_t>(handle);
      return kErrorSuccess;
    }
    CloseHandle(handle);
    if (attempt == kAcquireAttempts) return kErrorAlreadyExists;
    Sleep(kAcquirePauseMs);
  }
}

void PresenceObject::Release() {
  if (!held()) return;
  CloseHandle(reinterpret_cast<HANDLE>(handle_));
  handle_ = kNone;
}

}  // namespace orlenda::platform
