#include "support/isolated_dirs.h"

#include <cstdlib>
#include <filesystem>
#include <random>

#include "common/wide_string.h"
#include "platform/paths.h"

namespace orlenda::testing {
namespace {

std::filesystem::path MakeTempDir(const char* tag) {
  // Short names: a Unix socket path must fit in 108 bytes.
  std::random_device rd;
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::filesystem::path dir =
        std::filesystem::temp_directory_path() / (std::string("or") + tag + std::to_string(rd() % 1000000));
    std::error_code ec;
    if (std::filesystem::create_directory(dir, ec)) return dir;
  }
  std::abort();
}

void SetVariable(const char* name, const std::string& value) {
#ifdef _WIN32
  (void)name;
  (void)value;  // the Windows build has no overrides
#else
  setenv(name, value.c_str(), 1);
#endif
}

}  // namespace

void UseIsolatedDirs() {
  SetVariable("ORLENDA_RUN_DIR", MakeTempDir("r").string());
  SetVariable("ORLENDA_DATA_DIR", MakeTempDir("d").string());
}

std::string DataDir() {
  char16_t buffer[platform::kMaxPathChars];
  const std::size_t length = platform::CommonAppDataFolder(buffer, platform::kMaxPathChars);
  const HeapString utf8 = WideToUtf8(WStringView(buffer, length));
  return std::string(utf8.data(), utf8.size());
}

}  // namespace orlenda::testing
