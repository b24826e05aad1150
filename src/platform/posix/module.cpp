// Modules on POSIX: dlopen / dlsym / dlclose. Versions come from the exported data symbol
// `SkeinComponentVersion` (see module.h), looked up in the file's own link map.
#ifndef _GNU_SOURCE
#define _GNU_SOURCE  // dladdr1, dlinfo
#endif
#include "platform/module.h"

#include <dlfcn.h>
#include <link.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstring>

#include "platform/errors.h"
#include "platform/paths.h"
#include "platform/posix/utf8.h"

namespace orlenda::platform {
namespace {

constexpr std::size_t kPathBytes = 4096;
constexpr char kVersionSymbol[] = "SkeinComponentVersion";

// The module file a name stands for (ResolveModuleName), as a UTF-8 path.
bool ToNative(const char16_t* name, char* out, std::size_t capacity) {
  char16_t path[kMaxPathChars];
  return ResolveModuleName(name, path, kMaxPathChars) != 0 && Utf16ToUtf8(path, out, capacity) != kConversionFailed;
}

// Whether `path` names the running executable (which dlopen cannot map a second time).
bool IsExecutable(const char* path) {
  char self[PATH_MAX];
  char other[PATH_MAX];
  if (realpath("/proc/self/exe", self) == nullptr) return false;
  if (realpath(path, other) == nullptr) return false;
  return std::strcmp(self, other) == 0;
}

}  // namespace

const char16_t* ModuleExtension() { return u".so"; }

std::size_t SystemModuleFolder(char16_t* buffer, std::size_t capacity) {
  if (capacity > 0) buffer[0] = 0;
  return 0;  // only the executable's folder
}

uint32_t Module::Load(const char16_t* file_name) {
  Release();
  char path[kPathBytes];
  if (!ToNative(file_name, path, sizeof(path))) return kErrorFileNotFound;
  handle_ = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  return handle_ != nullptr ? kErrorSuccess : kErrorFileNotFound;
}

void* Module::Symbol(const char* name) const {
  if (handle_ == nullptr || name == nullptr) return nullptr;
  return dlsym(handle_, name);
}

void Module::Release() {
  if (handle_ != nullptr) {
    dlclose(handle_);
    handle_ = nullptr;
  }
}

FileVersion ReadFileVersion(const char16_t* file_name) {
  FileVersion version;
  char path[kPathBytes];
  if (!ToNative(file_name, path, sizeof(path))) return version;

  // A module already loaded is found again without running anything; otherwise it is mapped
  // lazily for the look-up only. The executable is the process's own global scope.
  void* handle = nullptr;
  if (IsExecutable(path)) {
    handle = dlopen(nullptr, RTLD_LAZY);
  } else {
    handle = dlopen(path, RTLD_LAZY | RTLD_LOCAL | RTLD_NOLOAD);
    if (handle == nullptr) handle = dlopen(path, RTLD_LAZY | RTLD_LOCAL);
  }
  if (handle == nullptr) return version;

  void* symbol = dlsym(handle, kVersionSymbol);
  // dlsym also searches the file's dependencies: only the file's own definition counts.
  struct link_map* own = nullptr;
  struct link_map* defining = nullptr;
  Dl_info info;
  if (symbol != nullptr && dlinfo(handle, RTLD_DI_LINKMAP, &own) == 0 &&
      dladdr1(symbol, &info, reinterpret_cast<void**>(&defining), RTLD_DL_LINKMAP) != 0 &&
      own == defining) {
    const auto* parts = static_cast<const uint16_t*>(symbol);
    for (int i = 0; i < 4; ++i) version.parts[i] = parts[i];
    version.status = VersionStatus::kFound;
  }
  dlclose(handle);
  return version;
}

bool IsModuleResident(const char16_t* file_name) {
  char path[kPathBytes];
  if (!ToNative(file_name, path, sizeof(path))) return false;
  void* handle = dlopen(path, RTLD_LAZY | RTLD_LOCAL | RTLD_NOLOAD);
  if (handle == nullptr) return false;
  dlclose(handle);  // drops the reference RTLD_NOLOAD took
  return true;
}

std::size_t ExecutablePath(char16_t* buffer, std::size_t capacity) {
  if (capacity > 0) buffer[0] = 0;
  char path[kPathBytes];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof(path) - 1);
  if (length <= 0) return 0;
  path[length] = 0;
  const std::size_t units = Utf8ToUtf16(path, buffer, capacity);
  if (units == kConversionFailed) {
    if (capacity > 0) buffer[0] = 0;
    return 0;
  }
  return units;
}

}  // namespace orlenda::platform
