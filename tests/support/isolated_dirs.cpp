#include "support/isolated_dirs.h"

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace orlenda::testing {

void UseIsolatedDirs() {
#ifndef _WIN32  // the Windows build has no overrides
  // Every folder handed out goes when the test process ends, with what the tests left in it.
  static std::vector<std::string>* made = [] {
    std::atexit([] {
      std::error_code ignored;
      for (const std::string& dir : *made) std::filesystem::remove_all(dir, ignored);
    });
    return new std::vector<std::string>();
  }();
  for (const char* name : {"ORLENDA_RUN_DIR", "ORLENDA_DATA_DIR"}) {
    // Short names: a Unix socket path must fit in 108 bytes.
    std::string dir = (std::filesystem::temp_directory_path() / "orXXXXXX").string();
    if (mkdtemp(&dir[0]) == nullptr) std::abort();
    setenv(name, dir.c_str(), 1);
    made->push_back(dir);
  }
#endif
}

}  // namespace orlenda::testing
