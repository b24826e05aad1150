#include "platform/pipe.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/errors.h"
#include "platform/thread.h"

#ifndef _WIN32
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#endif

namespace orlenda::platform {
namespace {

// Each test gets a pipe name of its own (and, on POSIX, a fresh run directory), so runs in parallel
// and leftovers of earlier runs never meet.
class PipeTest : public ::testing::Test {
 protected:
  void SetUp() override {
#ifndef _WIN32
    char dir[] = "/tmp/orlp-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    run_dir_ = dir;
    setenv("ORLENDA_RUN_DIR", dir, 1);
#endif
    static std::atomic<int> counter{0};
    char name[64];
    std::snprintf(name, sizeof(name), "orl-pipe-%u-%d", static_cast<unsigned>(CurrentProcessId()),
                  ++counter);
    for (const char* c = name; *c != 0; ++c) name_.push_back(static_cast<char16_t>(*c));
  }

  void TearDown() override {
#ifndef _WIN32
    std::string socket = run_dir_ + "/" + std::string(name_.begin(), name_.end());
    unlink(socket.c_str());
    rmdir(run_dir_.c_str());
    unsetenv("ORLENDA_RUN_DIR");
#endif
  }

  const char16_t* name() const { return name_.c_str(); }

  // One client connected to the listening pipe, and accepted.
  void Connect(PipeListener* listener, PipeStream* client, PipeStream* server) {
    ASSERT_EQ(OpenClient(client), kErrorSuccess);
    ASSERT_EQ(listener->Accept(server), kErrorSuccess);
  }

  // Opens the pipe as a writing client, waiting while every instance is busy.
  uint32_t OpenClient(PipeStream* stream, bool read_access = false) {
    uint32_t error = kErrorPipeBusy;
    for (int attempt = 0; attempt < 200 && error == kErrorPipeBusy; ++attempt) {
      error = stream->Open(name(), read_access);
      if (error == kErrorPipeBusy) WaitForPipe(name(), 100);
    }
    return error;
  }

  std::u16string name_;
  std::string run_dir_;
};

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
  std::size_t done = 0;
  while (done < data.size()) {
    uint32_t written = 0;
    uint32_t error = stream->Write(data.data() + done, static_cast<uint32_t>(data.size() - done),
                                   &written);
    if (error != kErrorSuccess) return error;
    if (written == 0) return kErrorNoData;
    done += written;
  }
  return kErrorSuccess;
}

// Compares received bytes without printing them: a failure says where they first differ.
::testing::AssertionResult SameBytes(const std::string& got, const std::string& expected) {
  if (got == expected) return ::testing::AssertionSuccess();
  std::size_t at = 0;
  while (at < got.size() && at < expected.size() && got[at] == expected[at]) ++at;
  return ::testing::AssertionFailure() << "got " << got.size() << " bytes, expected "
                                       << expected.size() << ", first difference at " << at;
}

std::string Pattern(int seed, std::size_t size) {
  std::string data(size, '\0');
  for (std::size_t i = 0; i < size; ++i) data[i] = static_cast<char>((seed * 131 + i * 7) & 0xFF);
  return data;
}

TEST_F(PipeTest, CarriesBytesFromClientToServerInBothModes) {
  for (PipeMode mode : {PipeMode::kByte, PipeMode::kMessage}) {
    SCOPED_TRACE(mode == PipeMode::kByte ? "byte mode" : "message mode");
    PipeListener listener;
    ASSERT_EQ(listener.Listen(name(), mode), kErrorSuccess);
    const std::string sent = Pattern(1, 10000) + std::string("\0tail", 5);
    uint32_t client_result = ~0u;
    std::thread client([&] {
      PipeStream stream;
      client_result = OpenClient(&stream);
      if (client_result != kErrorSuccess) return;
      client_result = stream.SetReadMode(mode);
      if (client_result == kErrorSuccess) client_result = WriteAll(&stream, sent);
    });
    PipeStream server;
    ASSERT_EQ(listener.Accept(&server), kErrorSuccess);
    EXPECT_TRUE(server.is_open());
    EXPECT_TRUE(SameBytes(ReadToEnd(&server, 777), sent));
    client.join();
    EXPECT_EQ(client_result, kErrorSuccess);
  }
}

TEST_F(PipeTest, ManyClientsAtOnceEachArriveIntact) {
  PipeListener listener;
  ASSERT_EQ(listener.Listen(name(), PipeMode::kByte), kErrorSuccess);
  constexpr int kClients = 20;
  constexpr std::size_t kSize = 6000;  // more than one pipe buffer
  std::atomic<int> client_failures{0};
  std::vector<std::thread> clients;
  for (int id = 0; id < kClients; ++id) {
    clients.emplace_back([&, id] {
      PipeStream stream;
      std::string data = Pattern(id, kSize);
      data[0] = static_cast<char>(id);
      if (OpenClient(&stream) != kErrorSuccess || WriteAll(&stream, data) != kErrorSuccess) {
        ++client_failures;
      }
    });
  }
  std::vector<std::string> received(kClients);
  std::vector<std::thread> readers;
  std::atomic<int> bad{0};
  for (int i = 0; i < kClients; ++i) {
    auto server = std::make_shared<PipeStream>();
    ASSERT_EQ(listener.Accept(server.get()), kErrorSuccess);
    readers.emplace_back([&, server] {
      std::string data = ReadToEnd(server.get(), 1000);
      int id = data.empty() ? -1 : static_cast<unsigned char>(data[0]);
      if (id < 0 || id >= kClients || !received[id].empty()) {
        ++bad;
        return;
      }
      received[id] = data;
    });
  }
  for (auto& client : clients) client.join();
  for (auto& reader : readers) reader.join();
  EXPECT_EQ(client_failures.load(), 0);
  EXPECT_EQ(bad.load(), 0);
  for (int id = 0; id < kClients; ++id) {
    std::string expected = Pattern(id, kSize);
    expected[0] = static_cast<char>(id);
    EXPECT_TRUE(SameBytes(received[id], expected)) << "client " << id;
  }
}

TEST_F(PipeTest, OpenWithoutListenerFailsAndWaitLastsItsTimeout) {
  PipeStream stream;
  EXPECT_EQ(stream.Open(name(), false), kErrorFileNotFound);
  EXPECT_FALSE(stream.is_open());

  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(WaitForPipe(name(), 200), kErrorFileNotFound);
  auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
                     std::chrono::steady_clock::now() - start)
                     .count();
  EXPECT_GE(elapsed, 160);
  EXPECT_LT(elapsed, 5000);

  // Once a listener exists the wait succeeds, and after the listener is gone the pipe is too.
  {
    PipeListener listener;
    ASSERT_EQ(listener.Listen(name(), PipeMode::kByte), kErrorSuccess);
    EXPECT_EQ(WaitForPipe(name(), 2000), kErrorSuccess);
  }
  EXPECT_EQ(stream.Open(name(), false), kErrorFileNotFound);
}

TEST_F(PipeTest, ShutdownWakesAcceptHandsOutConnectedClientsAndStopsLaterOnes) {
  PipeListener listener;
  ASSERT_EQ(listener.Listen(name(), PipeMode::kByte), kErrorSuccess);
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

  // A client that connected before the shutdown is still handed out, once.
  PipeListener second;
  PipeStream client, server;
  ASSERT_EQ(second.Listen(name(), PipeMode::kByte), kErrorSuccess);
  ASSERT_EQ(OpenClient(&client), kErrorSuccess);
  second.Shutdown();
  ASSERT_EQ(second.Accept(&server), kErrorSuccess);
  uint32_t written = 0;
  ASSERT_EQ(client.Write("early", 5, &written), kErrorSuccess);
  client.Close();
  EXPECT_EQ(ReadToEnd(&server, 64), "early");
  PipeStream later;
  EXPECT_EQ(second.Accept(&later), kErrorOperationAborted);
  EXPECT_FALSE(later.is_open());
}

TEST_F(PipeTest, EitherEndClosingEndsTheStream) {
  PipeListener listener;
  ASSERT_EQ(listener.Listen(name(), PipeMode::kByte), kErrorSuccess);
  PipeStream client, server;
  Connect(&listener, &client, &server);
  uint32_t written = 0;
  ASSERT_EQ(client.Write("abc", 3, &written), kErrorSuccess);
  client.Close();
  EXPECT_FALSE(client.is_open());
  EXPECT_EQ(ReadToEnd(&server, 64), "abc");
  uint32_t got = 99;
  char buffer[8];
  EXPECT_EQ(server.Read(buffer, sizeof(buffer), &got), kErrorSuccess);  // and again: still the end
  EXPECT_EQ(got, 0u);

  // A write after the server closed fails without ending the process.
  PipeStream client2, server2;
  Connect(&listener, &client2, &server2);
  server2.Close();
  uint32_t error = kErrorSuccess;
  for (int i = 0; i < 10 && error == kErrorSuccess; ++i) error = client2.Write("lost", 4, &written);
  EXPECT_TRUE(error == kErrorPipeNotConnected || error == kErrorNoData) << error;
}

#ifndef _WIN32
TEST_F(PipeTest, ListenPreparesTheSocketPath) {
  // A stale file is replaced by a socket everyone may open.
  std::string path = run_dir_ + "/" + std::string(name_.begin(), name_.end());
  FILE* stale = std::fopen(path.c_str(), "w");
  ASSERT_NE(stale, nullptr);
  std::fclose(stale);
  {
    PipeListener listener;
    ASSERT_EQ(listener.Listen(name(), PipeMode::kByte), kErrorSuccess);
    struct stat info;
    ASSERT_EQ(stat(path.c_str(), &info), 0);
    EXPECT_TRUE(S_ISSOCK(info.st_mode));
    EXPECT_EQ(info.st_mode & 0777, 0666u);
    PipeStream client;
    EXPECT_EQ(client.Open(name(), false), kErrorSuccess);
  }
  // A missing run directory is made; the socket file goes with the listener.
  std::string nested = run_dir_ + "/a/b";
  setenv("ORLENDA_RUN_DIR", nested.c_str(), 1);
  {
    PipeListener listener;
    ASSERT_EQ(listener.Listen(name(), PipeMode::kByte), kErrorSuccess);
    PipeStream client;
    EXPECT_EQ(client.Open(name(), false), kErrorSuccess);
  }
  EXPECT_EQ(rmdir(nested.c_str()), 0) << "the socket file should be gone";
  rmdir((run_dir_ + "/a").c_str());

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
