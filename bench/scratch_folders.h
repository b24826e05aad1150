// The benchmarks' folders: ORLENDA_RUN_DIR and ORLENDA_DATA_DIR as the environment sets them, else
// fresh temporary folders, so that a benchmark never touches the folders of a running service.
#pragma once

#include <stdlib.h>

#include <cstdlib>

namespace orlenda::bench {

inline void UseScratchFolders() {
  for (const char* variable : {"ORLENDA_RUN_DIR", "ORLENDA_DATA_DIR"}) {
    const char* set = std::getenv(variable);
    if (set != nullptr && set[0] != '\0') continue;
    char dir[] = "/tmp/orlb-XXXXXX";
    if (mkdtemp(dir) == nullptr) std::abort();
    setenv(variable, dir, 1);
  }
}

}  // namespace orlenda::bench
