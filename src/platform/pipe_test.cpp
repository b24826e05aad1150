#include "platform/pipe.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <string>

#include "platform/errors.h"
#include "platform/pipe_read_loop.h"
#include "support/scratch_names.h"

#ifndef _WIN32
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace orlenda::platform {
namespace {

// The pipe's server end is a read loop that listens and never runs: the pipe exists, clients
// connect, and nobody reads.
using PipeTest = testing::ScratchNameTest;

TEST_F(PipeTest, OpenAndWaitFollowTheServerAndWritesFailOnceItIsGone) {
  PipeStream stream;
  EXPECT_EQ(stream.Open(name(), false), kErrorFileNotFound);
  EXPECT_EQ(stream.SetReadMode(PipeMode::kMessage), kErrorInvalidHandle);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(WaitForPipe(name(), 200), kErrorFileNotFound);
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_GE(elapsed, std::chrono::milliseconds(160));
  EXPECT_LT(elapsed, std::chrono::seconds(5));
  {
    PipeReadLoop server;
    ASSERT_EQ(server.Listen(name(), PipeMode::kMessage), kErrorSuccess);
    EXPECT_EQ(WaitForPipe(name(), 2000), kErrorSuccess);
    ASSERT_EQ(stream.Open(name(), false), kErrorSuccess);
    EXPECT_EQ(stream.SetReadMode(PipeMode::kMessage), kErrorSuccess);
#ifdef _WIN32
    // The one free instance is taken, and a loop that does not run makes no other.
    PipeStream second;
    EXPECT_EQ(second.Open(name(), false), kErrorPipeBusy);
    EXPECT_EQ(WaitForPipe(name(), 100), kErrorSemTimeout);
#endif
  }
  // A write to the server that has gone fails, and does not end the process.
  uint32_t error = kErrorSuccess;
  uint32_t written = 0;
  for (int i = 0; i < 10 && error == kErrorSuccess; ++i) error = stream.Write("lost", 4, &written);
  EXPECT_TRUE(error == kErrorPipeNotConnected || error == kErrorNoData) << error;
  EXPECT_EQ(stream.Open(name(), false), kErrorFileNotFound);
}

#ifndef _WIN32
TEST_F(PipeTest, ListenPreparesTheSocketPath) {
  // A stale file is replaced by a socket everyone may open.
  const std::string file_name(name_.begin(), name_.end());
  ASSERT_TRUE(std::ofstream(dir_ / file_name) << "stale");
  for (const std::string& run : {dir_.string(), dir_.string() + "/a/b"}) {
    // The second time a missing run directory is made; the socket file goes with the server.
    setenv("ORLENDA_RUN_DIR", run.c_str(), 1);
    PipeReadLoop server;
    ASSERT_EQ(server.Listen(name(), PipeMode::kMessage), kErrorSuccess);
    struct stat info;
    ASSERT_EQ(stat((run + "/" + file_name).c_str(), &info), 0);
    EXPECT_TRUE(S_ISSOCK(info.st_mode));
    EXPECT_EQ(info.st_mode & 0777, 0666u);
    PipeStream client;
    EXPECT_EQ(client.Open(name(), false), kErrorSuccess);
  }
  EXPECT_EQ(rmdir((dir_ / "a/b").c_str()), 0) << "the socket file should be gone";

  // A path too long for a socket is refused at both ends.
  const std::u16string long_name(120, u'x');
  PipeReadLoop server;
  EXPECT_EQ(server.Listen(long_name.c_str(), PipeMode::kMessage), kErrorInvalidParameter);
  PipeStream client;
  EXPECT_EQ(client.Open(long_name.c_str(), false), kErrorInvalidParameter);
}
#endif

}  // namespace
}  // namespace orlenda::platform
