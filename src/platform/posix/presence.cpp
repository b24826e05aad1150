// The presence object on POSIX: a lock file in the run directory, held with an exclusive flock for
// as long as the holder runs. The kernel drops the lock when the holder exits, however it exits, so a
// file left behind never counts as presence.
#include "platform/presence.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "platform/errors.h"
#include "platform/posix/errno_map.h"
#include "platform/posix/run_dir.h"

namespace orlenda::platform {

bool IsPresenceHeld(const char16_t* name) {
  char path[kRunPathBytes];
  if (RunDirPath(name, path, sizeof(path)) != kErrorSuccess) return false;
  int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;  // no file, no holder
  bool held = false;
  if (flock(fd, LOCK_SH | LOCK_NB) != 0) {
    held = errno == EWOULDBLOCK;
  } else {
    flock(fd, LOCK_UN);
  }
  close(fd);
  return held;
}

uint32_t PresenceObject::Acquire(const char16_t* name) {
  if (held()) return kErrorAlreadyExists;
  char path[kRunPathBytes];
  uint32_t error = RunDirPath(name, path, sizeof(path));
  if (error != kErrorSuccess) return error;
  error = CreateRunDirectory();
  if (error != kErrorSuccess) return error;
  int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
  if (fd < 0) return LastErrno();
  // The lock belongs to this open file description, so even a second Acquire in this process fails.
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    error = errno == EWOULDBLOCK ? kErrorAlreadyExists : LastErrno();
    close(fd);
    return error;
  }
  handle_ = fd;
  return kErrorSuccess;
}

void PresenceObject::Release() {
  if (!held()) return;
  // Closing drops the lock. The file stays: removing it could race a new holder's open.
  close(static_cast<int>(handle_));
  handle_ = kNone;
}

}  // namespace orlenda::platform
