// Well-known folders. Results are written to a caller's buffer, terminated; the return value is the
// length in UTF-16 units, or 0 when the folder is unknown or does not fit.
//
// POSIX defaults, each with one override for tests and side-by-side instances:
//   run directory (pipes, presence files): /run/orlenda, or $ORLENDA_RUN_DIR
//   common application data:               /var/lib,     or $ORLENDA_DATA_DIR
// Windows has no overrides: SHGetFolderPathW(CSIDL_COMMON_APPDATA); it has no run directory.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orlenda::platform {

constexpr std::size_t kMaxPathChars = 1024;

std::size_t CommonAppDataFolder(char16_t* buffer, std::size_t capacity);

enum class FolderVersion { kCurrent, kDefault };

// The common application-data folder as the settings store asks for it: SHGetFolderPathW with
// CSIDL_COMMON_APPDATA | CSIDL_FLAG_CREATE and the current or the default path. On POSIX both
// versions are the same folder, created when missing. Returns 0, or the failure code (an HRESULT
// on Windows, an error from errors.h on POSIX); `*length` receives the length on success.
uint32_t GetCommonAppDataFolder(FolderVersion version, char16_t* buffer, std::size_t capacity,
                                std::size_t* length);

// The path separator of the platform: '\\' on Windows, '/' on POSIX.
char16_t PathSeparator();

}  // namespace orlenda::platform
