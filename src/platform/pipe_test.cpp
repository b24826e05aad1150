#include "platform/pipe.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/errors.h"
#include "platform/thread.h"
#include "support/scratch_names.h"

#ifndef _WIN32
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace orlenda::platform {
namespace {

using PipeTest = testing::ScratchNameTest;

std::string ReadToEnd(PipeStream* stream, uint32_t chunk) {
  std::string data;
  std::vector<char> buffer(chunk);
  for (int i = 0; i < 100000; ++i) {
    uint32_t got = 0;
    uint32_t error = stream->Read(buffer.data(), chunk, &got);
    EXPECT_EQ(error, kErrorSuccess);
    if (error != kErrorSuccess || got == 0) break;
    EXPECT_LE(got, chunk);
    data.append(buffer.data(), got);
  }
  return data;
}

uint32_t WriteAll(PipeStream* stream, const std::string& data) {
  for (std::size_t done = 0; done < data.size();) {
    uint32_t written = 0;
    uint32_t error = stream->Write(data.data() + done, static_cast<uint32_t>(data.size() - done), &written);
    if (error != kErrorSuccess) return error;
    if (written == 0) return kErrorNoData;
    done += written;
  }
  return kErrorSuccess;
}

// `size` bytes of a pattern of `seed`, the first byte the seed itself.
std::string Pattern(int seed, std::size_t size) {
  std::string data(size, static_cast<char>(seed));
  for (std::size_t i = 1; i < size; ++i) data[i] = static_cast<char>((seed * 131 + i * 7) & 0xFF);
  return data;
}

TEST_F(PipeTest, ManyClientsAtOnceEachArriveIntactInBothModes) {
  constexpr int kClients = 20;
  constexpr std::size_t kSize = 6000;  // more than one pipe buffer, and than one read
  for (PipeMode mode : {PipeMode::kByte, PipeMode::kMessage}) {
    SCOPED_TRACE(mode == PipeMode::kByte ? "byte mode" : "message mode");
    PipeListener listener;
    ASSERT_EQ(listener.Listen(name(), mode), kErrorSuccess);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int id = 0; id < kClients; ++id) {
      threads.emplace_back([&, id] {
        PipeStream stream;
        if (OpenClient(&stream) != kErrorSuccess || stream.SetReadMode(mode) != kErrorSuccess ||
            WriteAll(&stream, Pattern(id, kSize)) != kErrorSuccess) {
          ++failures;
        }
      });
    }
    std::atomic<uint32_t> received{0};  // a bit for each client whose bytes arrived intact
    for (int i = 0; i < kClients; ++i) {
      auto server = std::make_shared<PipeStream>();
      ASSERT_EQ(listener.Accept(server.get()), kErrorSuccess);
      threads.emplace_back([&, server] {
        const std::string data = ReadToEnd(server.get(), 777);
        const int id = data.empty() ? kClients : static_cast<unsigned char>(data[0]);
        if (id >= kClients || data != Pattern(id, kSize) || (received.fetch_or(1u << id) & (1u << id)) != 0) ++failures;
      });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(received.load(), (1u << kClients) - 1);
  }
}

TEST_F(PipeTest, OpenWithoutListenerFailsAndWaitLastsItsTimeout) {
  PipeStream stream;
  EXPECT_EQ(stream.Open(name(), false), kErrorFileNotFound);
  EXPECT_FALSE(stream.is_open());
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(WaitForPipe(name(), 200), kErrorFileNotFound);
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_GE(elapsed, std::chrono::milliseconds(160));
  EXPECT_LT(elapsed, std::chrono::seconds(5));

  // Once a listener exists the wait succeeds, and after the listener is gone the pipe is too.
  {
    PipeListener listener;
    ASSERT_EQ(listener.Listen(name(), PipeMode::kByte), kErrorSuccess);
    EXPECT_EQ(WaitForPipe(name(), 2000), kErrorSuccess);
  }
  EXPECT_EQ(stream.Open(name(), false), kErrorFileNotFound);
}

TEST_F(PipeTest, EitherEndClosingEndsTheStreamAndShutdownStopsAccepting) {
  PipeListener listener;
  ASSERT_EQ(listener.Listen(name(), PipeMode::kByte), kErrorSuccess);
  // A write after the server closed fails without ending the process.
  PipeStream client, server;
  ASSERT_EQ(OpenClient(&client), kErrorSuccess);
  ASSERT_EQ(listener.Accept(&server), kErrorSuccess);
  server.Close();
  uint32_t error = kErrorSuccess, written = 0;
  for (int i = 0; i < 10 && error == kErrorSuccess; ++i) error = client.Write("lost", 4, &written);
  EXPECT_TRUE(error == kErrorPipeNotConnected || error == kErrorNoData) << error;

  // A shutdown wakes an Accept that waits.
  std::atomic<uint32_t> result{~0u};
  std::thread acceptor([&] {
    PipeStream stream;
    result = listener.Accept(&stream);
  });
  SleepMs(100);
  EXPECT_EQ(result.load(), ~0u) << "Accept returned with no client";
  listener.Shutdown();
  acceptor.join();
  EXPECT_EQ(result.load(), kErrorOperationAborted);

  // A client that connected before the shutdown is still handed out, once; its close ends the stream.
  PipeListener second;
  PipeStream early, accepted, later;
  ASSERT_EQ(second.Listen(name(), PipeMode::kByte), kErrorSuccess);
  ASSERT_EQ(OpenClient(&early), kErrorSuccess);
  second.Shutdown();
  ASSERT_EQ(second.Accept(&accepted), kErrorSuccess);
  ASSERT_EQ(WriteAll(&early, "early"), kErrorSuccess);
  early.Close();
  EXPECT_EQ(ReadToEnd(&accepted, 64), "early");
  uint32_t got = 99;
  char buffer[8];
  EXPECT_EQ(accepted.Read(buffer, sizeof(buffer), &got), kErrorSuccess);  // and again: still the end
  EXPECT_EQ(got, 0u);
  EXPECT_EQ(second.Accept(&later), kErrorOperationAborted);
  EXPECT_FALSE(later.is_open());
}

#ifndef _WIN32
TEST_F(PipeTest, ListenPreparesTheSocketPath) {
  // A stale file is replaced by a socket everyone may open.
  const std::string path = (dir_ / std::string(name_.begin(), name_.end())).string();
  ASSERT_TRUE(std::ofstream(path) << "stale");
  for (const std::string& run : {dir_.string(), dir_.string() + "/a/b"}) {
    // The second time a missing run directory is made; the socket file goes with the listener.
    setenv("ORLENDA_RUN_DIR", run.c_str(), 1);
    PipeListener listener;
    ASSERT_EQ(listener.Listen(name(), PipeMode::kByte), kErrorSuccess);
    struct stat info;
    ASSERT_EQ(stat((run + "/" + std::string(name_.begin(), name_.end())).c_str(), &info), 0);
    EXPECT_TRUE(S_ISSOCK(info.st_mode));
    EXPECT_EQ(info.st_mode & 0777, 0666u);
    PipeStream client;
    EXPECT_EQ(client.Open(name(), false), kErrorSuccess);
  }
  EXPECT_EQ(rmdir((dir_ / "a/b").c_str()), 0) << "the socket file should be gone";

  // A path too long for a socket is refused at both ends.
  std::u16string long_name(120, u'x');
  PipeListener listener;
  EXPECT_EQ(listener.Listen(long_name.c_str(), PipeMode::kByte), kErrorInvalidParameter);
  PipeStream client;
  EXPECT_EQ(client.Open(long_name.c_str(), false), kErrorInvalidParameter);
}
#endif

}  // namespace
}  // namespace orlenda::platform
