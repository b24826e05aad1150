#include "support/isolated_dirs.h"

#include <cstdlib>
#include <filesystem>

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

}  // namespace orlenda::testing
