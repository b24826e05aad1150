#include "platform/paths.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/errors.h"
#include "platform/posix/errno_map.h"
#include "platform/posix/run_dir.h"
#include "platform/posix/utf8.h"

namespace orlenda::platform {
namespace {

constexpr char kDefaultRunDir[] = "/run/orlenda";
constexpr char kDefaultDataDir[] = "/var/lib";

const char* FromEnvironment(const char* variable, const char* fallback) {
  const char* value = std::getenv(variable);
  return value != nullptr && value[0] != 0 ? value : fallback;
}

}  // namespace

std::size_t CommonAppDataFolder(char16_t* buffer, std::size_t capacity) {
  std::size_t length = Utf8ToUtf16(FromEnvironment("ORLENDA_DATA_DIR", kDefaultDataDir), buffer,
                                   capacity);
  if (length == kConversionFailed) {
    if (capacity > 0) buffer[0] = 0;
    return 0;
  }
  return length;
}

char16_t PathSeparator() { return u'/'; }

const char* RunDirectory() { return FromEnvironment("ORLENDA_RUN_DIR", kDefaultRunDir); }

uint32_t RunDirPath(const char16_t* name, char* out, std::size_t capacity) {
  if (name == nullptr || name[0] == 0) return kErrorInvalidParameter;
  for (const char16_t* c = name; *c != 0; ++c) {
    if (*c == u'/') return kErrorInvalidParameter;  // a name, not a path into other folders
  }
  const char* dir = RunDirectory();
  std::size_t dir_length = std::strlen(dir);
  while (dir_length > 1 && dir[dir_length - 1] == '/') --dir_length;
  if (dir_length + 2 > capacity) return kErrorInvalidParameter;
  std::memcpy(out, dir, dir_length);
  out[dir_length] = '/';
  std::size_t name_length = Utf16ToUtf8(name, out + dir_length + 1, capacity - dir_length - 1);
  return name_length == kConversionFailed ? kErrorInvalidParameter : kErrorSuccess;
}

uint32_t GetCommonAppDataFolder(FolderVersion /*version*/, char16_t* buffer, std::size_t capacity,
                                std::size_t* length) {
  const char* dir = FromEnvironment("ORLENDA_DATA_DIR", kDefaultDataDir);
  const uint32_t error = CreateDirectories(dir);
  if (error != kErrorSuccess) return error;
  const std::size_t n = Utf8ToUtf16(dir, buffer, capacity);
  if (n == kConversionFailed) return kErrorInvalidParameter;
  *length = n;
  return kErrorSuccess;
}

uint32_t CreateRunDirectory() {
  const uint32_t error = CreateDirectories(RunDirectory());
  if (error != kErrorSuccess) return error;
  // The pipes' sockets (mode 0666, for every local user) live here: nobody but this user (or root)
  // may be able to replace them, so the folder must be a real folder of theirs, writable by no one
  // else, as sshd wants of its keys' folder.
  struct stat info;
  if (lstat(RunDirectory(), &info) != 0) return LastErrno();
  const bool owner_ok = info.st_uid == geteuid() || info.st_uid == 0;
  if (!S_ISDIR(info.st_mode) || !owner_ok || (info.st_mode & (S_IWGRP | S_IWOTH)) != 0) return kErrorAccessDenied;
  return kErrorSuccess;
}

uint32_t CreateDirectories(const char* dir) {
  char path[kRunPathBytes];
  std::size_t length = std::strlen(dir);
  if (length == 0 || length >= sizeof(path)) return kErrorInvalidParameter;
  std::memcpy(path, dir, length + 1);
  // Create each missing ancestor in turn; one that exists already (or appears meanwhile) is fine.
  for (std::size_t i = 1; i <= length; ++i) {
    if (path[i] != '/' && path[i] != 0) continue;
    char saved = path[i];
    path[i] = 0;
    if (mkdir(path, 0755) != 0 && errno != EEXIST) {
      uint32_t error = LastErrno();
      struct stat info;
      if (stat(path, &info) != 0 || !S_ISDIR(info.st_mode)) return error;
    }
    path[i] = saved;
  }
  struct stat info;
  if (stat(dir, &info) != 0) return LastErrno();
  return S_ISDIR(info.st_mode) ? kErrorSuccess : kErrorAlreadyExists;
}

}  // namespace orlenda::platform
