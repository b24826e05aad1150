// Modules on Windows: LoadLibraryW / GetProcAddress / FreeLibrary, and the version resource.
#include "platform/module.h"

#include "platform/errors.h"
#include "platform/heap.h"
#include "platform/paths.h"
#include "platform/win32/windows.h"

namespace orlenda::platform {

const char16_t* ModuleExtension() { return u".dll"; }

std::size_t SystemModuleFolder(char16_t* buffer, std::size_t capacity) {
  const UINT length = GetSystemDirectoryW(AsWide(buffer), static_cast<UINT>(capacity));
  return length > 0 && length < capacity ? length : 0;
}

uint32_t Module::Load(const char16_t* file_name) {
  Release();
  char16_t path[kMaxPathChars];
  if (ResolveModuleName(file_name, path, kMaxPathChars) == 0) return kErrorFileNotFound;
  // A full path: the module's own imports are looked for beside it first.
  HMODULE module = LoadLibraryExW(AsWide(path), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH);
  if (module == nullptr) {
    const uint32_t error = GetLastError();
    return error != 0 ? error : kErrorFileNotFound;
  }
  handle_ = module;
  return kErrorSuccess;
}

void* Module::Symbol(const char* name) const {
  if (handle_ == nullptr || name == nullptr) return nullptr;
  return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(handle_), name));
}

void Module::Release() {
  if (handle_ != nullptr) {
    FreeLibrary(static_cast<HMODULE>(handle_));
    handle_ = nullptr;
  }
}

FileVersion ReadFileVersion(const char16_t* file_name) {
  FileVersion version;
  char16_t path[kMaxPathChars];
  if (ResolveModuleName(file_name, path, kMaxPathChars) == 0) return version;
  file_name = path;
  DWORD ignored = 0;
  const DWORD size = GetFileVersionInfoSizeW(AsWide(file_name), &ignored);
  if (size == 0) return version;
  void* info = HeapAllocZero(size);
  if (info == nullptr) return version;
  // A failed read leaves the zeroed buffer, which the query below then rejects.
  GetFileVersionInfoW(AsWide(file_name), 0, size, info);

  VS_FIXEDFILEINFO* fixed = nullptr;
  UINT length = 0;
  if (!VerQueryValueW(info, L"\\", reinterpret_cast<void**>(&fixed), &length) || fixed == nullptr ||
      length < sizeof(VS_FIXEDFILEINFO)) {
    version.status = VersionStatus::kNoVersionValue;
  } else {
    version.status = VersionStatus::kFound;
    version.parts[0] = HIWORD(fixed->dwFileVersionMS);
    version.parts[1] = LOWORD(fixed->dwFileVersionMS);
    version.parts[2] = HIWORD(fixed->dwFileVersionLS);
    version.parts[3] = LOWORD(fixed->dwFileVersionLS);
  }
  HeapFreeBlock(info);
  return version;
}

bool IsModuleResident(const char16_t* file_name) {
  char16_t path[kMaxPathChars];
  return ResolveModuleName(file_name, path, kMaxPathChars) != 0 && GetModuleHandleW(AsWide(path)) != nullptr;
}

std::size_t ExecutablePath(char16_t* buffer, std::size_t capacity) {
  if (capacity > 0) buffer[0] = 0;
  wchar_t path[MAX_PATH];  // 260 characters: the service has always asked with this much
  const DWORD length = GetModuleFileNameW(nullptr, path, MAX_PATH);
  if (length == 0 || length >= MAX_PATH) return 0;  // failed, or cut short
  if (static_cast<std::size_t>(length) + 1 > capacity) return 0;
  for (DWORD i = 0; i <= length; ++i) buffer[i] = static_cast<char16_t>(path[i]);
  return length;
}

}  // namespace orlenda::platform
