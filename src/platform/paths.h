// Well-known folders. Results are written to a caller's buffer, terminated; the return value is the
// length in UTF-16 units, or 0 when the folder is unknown or does not fit.
//
// POSIX defaults, each with one override for tests and side-by-side instances:
//   run directory (pipes, presence files): /run/orlenda, or $ORLENDA_RUN_DIR
//   common application data:               /var/lib,     or $ORLENDA_DATA_DIR
// Windows has no overrides: SHGetFolderPathW(CSIDL_COMMON_APPDATA); it has no run directory.
#pragma once

#include <cstddef>

namespace orlenda::platform {

constexpr std::size_t kMaxPathChars = 1024;

std::size_t CommonAppDataFolder(char16_t* buffer, std::size_t capacity);

// The path separator of the platform: '\\' on Windows, '/' on POSIX.
char16_t PathSeparator();

}  // namespace orlenda::platform
