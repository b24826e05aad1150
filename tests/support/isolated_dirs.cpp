#include "support/isolated_dirs.h"

#include <cstdlib>
#include <filesystem>

#include "common/wide_string.h"
#include "platform/paths.h"

namespace orlenda::testing {

void UseIsolatedDirs() {
#ifndef _WIN32  // the Windows build has no overrides
  for (const char* name : {"ORLENDA_RUN_DIR", "ORLENDA_DATA_DIR"}) {
    // Short names: a Unix socket path must fit in 108 bytes.
    std::string dir = (std::filesystem::temp_directory_path() / "orXXXXXX").string();
    if (mkdtemp(&dir[0]) == nullptr) std::abort();
    setenv(name, dir.c_str(), 1);
  }
#endif
}

std::string DataDir() {
  char16_t buffer[platform::kMaxPathChars];
  const std::size_t length = platform::CommonAppDataFolder(buffer, platform::kMaxPathChars);
  const HeapString utf8 = WideToUtf8(WStringView(buffer, length));
  return std::string(utf8.data(), utf8.size());
}

}  // namespace orlenda::testing
