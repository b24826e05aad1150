// Files on Windows: CreateFileW handles. A replacement is MoveFileExW with write-through, so the
// call returns only after the move has reached the disk.
#include "platform/file.h"

#include <cstdio>

#include "platform/errors.h"
#include "platform/win32/windows.h"

#include <aclapi.h>
#include <sddl.h>

namespace orlenda::platform {
namespace {

// ReadFile and WriteFile take a DWORD count; larger requests go in pieces of this size.
constexpr std::size_t kMaxChunk = 0x40000000;

HANDLE AsHandle(intptr_t handle) { return reinterpret_cast<HANDLE>(handle); }

bool ValidPath(const char16_t* path) { return path != nullptr && path[0] != 0; }

}  // namespace

uint32_t File::OpenForReading(const char16_t* path) {
  Close();
  if (!ValidPath(path)) return kErrorInvalidParameter;
  HANDLE file = CreateFileW(AsWide(path), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                            FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
  if (file == INVALID_HANDLE_VALUE) return GetLastError();
  handle_ = reinterpret_cast<intptr_t>(file);
  return kErrorSuccess;
}

uint32_t File::CreateForWriting(const char16_t* path) {
  Close();
  if (!ValidPath(path)) return kErrorInvalidParameter;
  HANDLE file = CreateFileW(AsWide(path), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                            FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) return GetLastError();
  handle_ = reinterpret_cast<intptr_t>(file);
  return kErrorSuccess;
}

uint32_t File::Size(uint64_t* size) {
  *size = 0;
  if (!is_open()) return kErrorInvalidHandle;
  LARGE_INTEGER value;
  if (!GetFileSizeEx(AsHandle(handle_), &value)) return GetLastError();
  *size = static_cast<uint64_t>(value.QuadPart);
  return kErrorSuccess;
}

uint32_t File::Read(void* buffer, std::size_t size, std::size_t* got) {
  *got = 0;
  if (!is_open()) return kErrorInvalidHandle;
  DWORD n = 0;
  DWORD ask = static_cast<DWORD>(size < kMaxChunk ? size : kMaxChunk);
  if (!ReadFile(AsHandle(handle_), buffer, ask, &n, nullptr)) return GetLastError();
  *got = n;
  return kErrorSuccess;
}

uint32_t File::Write(const void* data, std::size_t size) {
  if (!is_open()) return kErrorInvalidHandle;
  const char* at = static_cast<const char*>(data);
  while (size > 0) {
    DWORD n = 0;
    DWORD ask = static_cast<DWORD>(size < kMaxChunk ? size : kMaxChunk);
    if (!WriteFile(AsHandle(handle_), at, ask, &n, nullptr)) return GetLastError();
    at += n;
    size -= n;
  }
  return kErrorSuccess;
}

uint32_t File::FlushToDisk() {
  if (!is_open()) return kErrorInvalidHandle;
  return FlushFileBuffers(AsHandle(handle_)) ? kErrorSuccess : GetLastError();
}

uint32_t File::Close() {
  if (!is_open()) return kErrorSuccess;
  HANDLE file = AsHandle(handle_);
  handle_ = kClosed;
  return CloseHandle(file) ? kErrorSuccess : GetLastError();
}

uint32_t ReplaceFileWith(const char16_t* source, const char16_t* target) {
  if (!ValidPath(source) || !ValidPath(target)) return kErrorInvalidParameter;
  return MoveFileExW(AsWide(source), AsWide(target),
                     MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)
             ? kErrorSuccess
             : GetLastError();
}

uint32_t RemoveFile(const char16_t* path) {
  if (!ValidPath(path)) return kErrorInvalidParameter;
  return DeleteFileW(AsWide(path)) ? kErrorSuccess : GetLastError();
}

uint32_t CreateFolder(const char16_t* path) {
  if (!ValidPath(path)) return kErrorInvalidParameter;
  return CreateDirectoryW(AsWide(path), nullptr) ? kErrorSuccess : GetLastError();
}

uint32_t RemoveEmptyFolder(const char16_t* path) {
  if (!ValidPath(path)) return kErrorInvalidParameter;
  return RemoveDirectoryW(AsWide(path)) ? kErrorSuccess : GetLastError();
}

namespace {

// What lets an account plant or replace content, or take the object over.
constexpr ACCESS_MASK kChangeRights = FILE_WRITE_DATA | FILE_APPEND_DATA | FILE_DELETE_CHILD | DELETE | WRITE_DAC |
                                      WRITE_OWNER | GENERIC_WRITE | GENERIC_ALL;

// SYSTEM, the Administrators, and the account this process runs as (the service's own).
bool IsTrustedSid(PSID sid) {
  if (IsWellKnownSid(sid, WinLocalSystemSid) || IsWellKnownSid(sid, WinBuiltinAdministratorsSid)) return true;
  HANDLE token = nullptr;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, &token)) return false;
  alignas(TOKEN_USER) unsigned char buffer[256];
  DWORD length = 0;
  const bool mine = GetTokenInformation(token, TokenUser, buffer, sizeof(buffer), &length) &&
                    EqualSid(reinterpret_cast<TOKEN_USER*>(buffer)->User.Sid, sid);
  CloseHandle(token);
  return mine;
}

}  // namespace

uint32_t OnlyTrustedMayChange(const char16_t* path, bool* trusted) {
  if (!ValidPath(path)) return kErrorInvalidParameter;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  PSID owner = nullptr;
  PACL dacl = nullptr;
  const DWORD error = GetNamedSecurityInfoW(AsWide(path), SE_FILE_OBJECT,
                                            OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, &owner,
                                            nullptr, &dacl, nullptr, &descriptor);
  if (error != ERROR_SUCCESS) return error;
  // No DACL at all lets everyone do everything.
  bool safe = owner != nullptr && IsTrustedSid(owner) && dacl != nullptr;
  for (DWORD i = 0; safe && i < dacl->AceCount; ++i) {
    void* ace = nullptr;
    if (!GetAce(dacl, i, &ace)) continue;
    const auto* header = static_cast<const ACE_HEADER*>(ace);
    if (header->AceType != ACCESS_ALLOWED_ACE_TYPE || (header->AceFlags & INHERIT_ONLY_ACE) != 0) continue;
    auto* allowed = static_cast<ACCESS_ALLOWED_ACE*>(ace);
    if ((allowed->Mask & kChangeRights) != 0 && !IsTrustedSid(&allowed->SidStart)) safe = false;
  }
  LocalFree(descriptor);
  *trusted = safe;
  return kErrorSuccess;
}

uint32_t RestrictFolder(const char16_t* path) {
  if (!ValidPath(path)) return kErrorInvalidParameter;
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;FR;;;BU)",
                                                            SDDL_REVISION_1, &descriptor, nullptr)) {
    return GetLastError();
  }
  BOOL present = FALSE;
  BOOL defaulted = FALSE;
  PACL dacl = nullptr;
  GetSecurityDescriptorDacl(descriptor, &present, &dacl, &defaulted);
  const DWORD error = SetNamedSecurityInfoW(const_cast<wchar_t*>(AsWide(path)), SE_FILE_OBJECT,
                                            DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION,
                                            nullptr, nullptr, dacl, nullptr);
  LocalFree(descriptor);
  return error;
}

bool PathExists(const char16_t* path) {
  return ValidPath(path) && GetFileAttributesW(AsWide(path)) != INVALID_FILE_ATTRIBUTES;
}

std::size_t ErrorDescription(uint32_t error, char16_t* buffer, std::size_t capacity) {
  if (capacity == 0) return 0;
  wchar_t text[512];
  DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                                nullptr, error, 0, text, sizeof(text) / sizeof(text[0]), nullptr);
  if (length == 0) {
    length = static_cast<DWORD>(
        _snwprintf(text, sizeof(text) / sizeof(text[0]), L"Error %u", static_cast<unsigned>(error)));
  }
  // The system's texts end with CR LF (and sometimes a blank before it); the report wants none.
  while (length > 0 &&
         (text[length - 1] == L'\r' || text[length - 1] == L'\n' || text[length - 1] == L' ')) {
    --length;
  }
  std::size_t copied = length < capacity - 1 ? length : capacity - 1;
  for (std::size_t i = 0; i < copied; ++i) buffer[i] = static_cast<char16_t>(text[i]);
  buffer[copied] = 0;
  return copied;
}

}  // namespace orlenda::platform
