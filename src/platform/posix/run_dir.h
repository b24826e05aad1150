// The run directory of the POSIX build: where the pipes' sockets and the presence lock files live.
// $ORLENDA_RUN_DIR when set and not empty, else /run/orlenda. Read at every call, so tests and
// side-by-side instances can point it elsewhere.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orlenda::platform {

// Capacity for a path in the run directory, in UTF-8 bytes with the terminator.
constexpr std::size_t kRunPathBytes = 1024;

// The run directory's path without a trailing separator.
const char* RunDirectory();

// "<run dir>/<name as UTF-8>" into `out`. kErrorInvalidParameter when the name is empty, holds a
// separator, or the path does not fit.
uint32_t RunDirPath(const char16_t* name, char* out, std::size_t capacity);

// mkdir -p of the run directory, mode 0755 for what it creates; kErrorAccessDenied when it is a
// symbolic link, belongs to another user than this one or root, or others may write to it.
// Creates `dir` and every missing ancestor (mode 0755). A folder that exists is fine.
uint32_t CreateDirectories(const char* dir);

uint32_t CreateRunDirectory();

}  // namespace orlenda::platform
