// Test support for the platform layer's tests: a name of the test's own and a fresh folder of that
// name that goes with the test; on POSIX $ORLENDA_RUN_DIR points at the folder (or at `run_below_`
// under it). Parallel runs and leftovers of earlier runs never meet.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <string>

#include "platform/errors.h"
#include "platform/pipe.h"
#include "platform/thread.h"

#ifndef _WIN32
#include <stdlib.h>
#endif

namespace orlenda::testing {

class ScratchNameTest : public ::testing::Test {
 protected:
  void SetUp() override {
    static std::atomic<int> counter{0};
    const std::string name = "orl-" + std::to_string(platform::CurrentProcessId()) + "-" + std::to_string(++counter);
    name_.assign(name.begin(), name.end());
    dir_ = std::filesystem::temp_directory_path() / name;
    std::filesystem::remove_all(dir_);
    ASSERT_TRUE(std::filesystem::create_directory(dir_));
#ifndef _WIN32
    setenv("ORLENDA_RUN_DIR", (dir_.string() + run_below_).c_str(), 1);
#endif
  }
  void TearDown() override {
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
#ifndef _WIN32
    unsetenv("ORLENDA_RUN_DIR");
#endif
  }

  const char16_t* name() const { return name_.c_str(); }
  // Opens the pipe of this name as a writing client, waiting while every instance is busy.
  uint32_t OpenClient(platform::PipeStream* stream) {
    uint32_t error = platform::kErrorPipeBusy;
    for (int attempt = 0; attempt < 200 && error == platform::kErrorPipeBusy; ++attempt) {
      error = stream->Open(name(), false);
      if (error == platform::kErrorPipeBusy) platform::WaitForPipe(name(), 100);
    }
    return error;
  }
  // A path in the folder, as the system's calls take it.
  std::u16string PathOf(const std::filesystem::path& name) const { return (dir_ / name).u16string(); }

  std::filesystem::path dir_;
  std::string run_below_;
  std::u16string name_;
};

}  // namespace orlenda::testing
