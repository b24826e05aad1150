// Files on POSIX: plain file descriptors. A replacement is rename(2), which is atomic within one
// file system; the folder is synced afterwards so that the new name itself survives a power cut.
#include "platform/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/errors.h"
#include "platform/posix/errno_map.h"
#include "platform/posix/utf8.h"

namespace orlenda::platform {
namespace {

// Room for a file name in UTF-8 (PATH_MAX on Linux).
constexpr std::size_t kPathBytes = 4096;

class NativePath {
 public:
  explicit NativePath(const char16_t* path) {
    ok_ = path != nullptr && path[0] != 0 &&
          Utf16ToUtf8(path, bytes_, sizeof(bytes_)) != kConversionFailed;
  }
  bool ok() const { return ok_; }
  const char* c_str() const { return bytes_; }

 private:
  char bytes_[kPathBytes];
  bool ok_ = false;
};

int OpenRetrying(const char* path, int flags, mode_t mode) {
  for (;;) {
    int fd = open(path, flags | O_CLOEXEC, mode);
    if (fd >= 0 || errno != EINTR) return fd;
  }
}

// The folder that holds `path`, to sync it after a rename: everything before the last '/', "/"
// for a file in the root, "." for a bare name.
uint32_t SyncFolderOf(const char* path) {
  char folder[kPathBytes];
  const char* slash = std::strrchr(path, '/');
  if (slash == nullptr) {
    std::strcpy(folder, ".");
  } else if (slash == path) {
    std::strcpy(folder, "/");
  } else {
    std::size_t length = static_cast<std::size_t>(slash - path);
    std::memcpy(folder, path, length);
    folder[length] = 0;
  }
  int fd = OpenRetrying(folder, O_RDONLY | O_DIRECTORY, 0);
  if (fd < 0) return LastErrno();
  uint32_t error = fsync(fd) == 0 ? kErrorSuccess : LastErrno();
  close(fd);
  return error;
}

// The errno behind one of the Windows-style numbers of errors.h, so that the description of a
// mapped error is the system's own text. 0 when there is none.
int ErrnoOf(uint32_t error) {
  if (error >= kErrorPosixBase) return static_cast<int>(error - kErrorPosixBase);
  switch (error) {
    case kErrorFileNotFound: return ENOENT;
    case kErrorAccessDenied: return EACCES;
    case kErrorInvalidHandle: return EBADF;
    case kErrorNotEnoughMemory: return ENOMEM;
    case kErrorInvalidParameter: return EINVAL;
    case kErrorBrokenPipe:
    case kErrorPipeNotConnected:
    case kErrorNoData:
      return EPIPE;
    case kErrorSemTimeout: return ETIMEDOUT;
    case kErrorAlreadyExists: return EEXIST;
    case kErrorPipeBusy: return EAGAIN;
    case kErrorOperationAborted: return ECANCELED;
    default: return 0;
  }
}

// strerror_r comes in two flavours (GNU returns the text, XSI fills the buffer); take either.
[[maybe_unused]] const char* PickText(int result, const char* buffer) {
  return result == 0 ? buffer : nullptr;
}
[[maybe_unused]] const char* PickText(const char* result, const char*) { return result; }

}  // namespace

uint32_t File::OpenForReading(const char16_t* path) {
  Close();
  NativePath native(path);
  if (!native.ok()) return kErrorInvalidParameter;
  int fd = OpenRetrying(native.c_str(), O_RDONLY, 0);
  if (fd < 0) return LastErrno();
  handle_ = fd;
  return kErrorSuccess;
}

uint32_t File::CreateForWriting(const char16_t* path) {
  Close();
  NativePath native(path);
  if (!native.ok()) return kErrorInvalidParameter;
  int fd = OpenRetrying(native.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) return LastErrno();
  handle_ = fd;
  return kErrorSuccess;
}

uint32_t File::Size(uint64_t* size) {
  *size = 0;
  if (!is_open()) return kErrorInvalidHandle;
  struct stat info;
  if (fstat(static_cast<int>(handle_), &info) != 0) return LastErrno();
  *size = static_cast<uint64_t>(info.st_size);
  return kErrorSuccess;
}

uint32_t File::Read(void* buffer, std::size_t size, std::size_t* got) {
  *got = 0;
  if (!is_open()) return kErrorInvalidHandle;
  for (;;) {
    ssize_t n = read(static_cast<int>(handle_), buffer, size);
    if (n >= 0) {
      *got = static_cast<std::size_t>(n);
      return kErrorSuccess;
    }
    if (errno != EINTR) return LastErrno();
  }
}

uint32_t File::Write(const void* data, std::size_t size) {
  if (!is_open()) return kErrorInvalidHandle;
  const char* at = static_cast<const char*>(data);
  while (size > 0) {
    ssize_t n = write(static_cast<int>(handle_), at, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return LastErrno();
    }
    at += n;
    size -= static_cast<std::size_t>(n);
  }
  return kErrorSuccess;
}

uint32_t File::FlushToDisk() {
  if (!is_open()) return kErrorInvalidHandle;
  return fsync(static_cast<int>(handle_)) == 0 ? kErrorSuccess : LastErrno();
}

uint32_t File::Close() {
  if (!is_open()) return kErrorSuccess;
  int fd = static_cast<int>(handle_);
  handle_ = kClosed;
  // No retry on EINTR: on Linux the descriptor is gone either way, and retrying could close a
  // descriptor another thread has just been given.
  return close(fd) == 0 || errno == EINTR ? kErrorSuccess : LastErrno();
}

uint32_t ReplaceFileWith(const char16_t* source, const char16_t* target) {
  NativePath from(source);
  NativePath to(target);
  if (!from.ok() || !to.ok()) return kErrorInvalidParameter;
  if (rename(from.c_str(), to.c_str()) != 0) return LastErrno();
  return SyncFolderOf(to.c_str());
}

uint32_t RemoveFile(const char16_t* path) {
  NativePath native(path);
  if (!native.ok()) return kErrorInvalidParameter;
  return unlink(native.c_str()) == 0 ? kErrorSuccess : LastErrno();
}

uint32_t CreateFolder(const char16_t* path) {
  NativePath native(path);
  if (!native.ok()) return kErrorInvalidParameter;
  return mkdir(native.c_str(), 0755) == 0 ? kErrorSuccess : LastErrno();
}

uint32_t RemoveEmptyFolder(const char16_t* path) {
  NativePath native(path);
  if (!native.ok()) return kErrorInvalidParameter;
  return rmdir(native.c_str()) == 0 ? kErrorSuccess : LastErrno();
}

uint32_t OnlyTrustedMayChange(const char16_t* path, bool* trusted) {
  NativePath native(path);
  if (!native.ok()) return kErrorInvalidParameter;
  struct stat info;
  if (stat(native.c_str(), &info) != 0) return LastErrno();
  *trusted = (info.st_uid == 0 || info.st_uid == geteuid()) && (info.st_mode & (S_IWGRP | S_IWOTH)) == 0;
  return kErrorSuccess;
}

uint32_t RestrictFolder(const char16_t* path) {
  NativePath native(path);
  if (!native.ok()) return kErrorInvalidParameter;
  return chmod(native.c_str(), 0755) == 0 ? kErrorSuccess : LastErrno();
}

bool PathExists(const char16_t* path) {
  NativePath native(path);
  struct stat info;
  return native.ok() && stat(native.c_str(), &info) == 0;
}

std::size_t ErrorDescription(uint32_t error, char16_t* buffer, std::size_t capacity) {
  if (capacity == 0) return 0;
  char text[256];
  const char* description = nullptr;
  int number = ErrnoOf(error);
  if (number != 0) {
    char scratch[256];
    scratch[0] = 0;
    description = PickText(strerror_r(number, scratch, sizeof(scratch)), scratch);
    if (description != nullptr) {
      std::snprintf(text, sizeof(text), "%s", description);
      description = text;
    }
  }
  if (description == nullptr) {
    std::snprintf(text, sizeof(text), "Error %u", static_cast<unsigned>(error));
    description = text;
  }
  // Cut the UTF-8 text until its UTF-16 form fits; strerror texts are short, so this rarely loops.
  std::size_t length = std::strlen(text);
  for (;;) {
    std::size_t units = Utf8ToUtf16(text, buffer, capacity);
    if (units != kConversionFailed) return units;
    if (length == 0) {
      buffer[0] = 0;
      return 0;
    }
    text[--length] = 0;
  }
}

}  // namespace orlenda::platform
