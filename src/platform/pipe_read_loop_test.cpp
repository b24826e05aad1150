#include "platform/pipe_read_loop.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/errors.h"
#include "platform/thread.h"
#include "support/scratch_names.h"

namespace orlenda::platform {
namespace {

// What the loop reported of each writer: its bytes and how often it was disconnected.
class Recorder : public PipeReadLoop::Handler {
 public:
  struct Writer {
    std::string bytes;
    int disconnects = 0;
  };

  void* OnConnect() override {
    std::lock_guard<std::mutex> lock(mutex_);
    writers_.emplace_back();
    return reinterpret_cast<void*>(writers_.size());
  }
  void OnBytes(void* writer, const uint8_t* bytes, std::size_t size) override {
    std::lock_guard<std::mutex> lock(mutex_);
    writers_[Index(writer)].bytes.append(reinterpret_cast<const char*>(bytes), size);
  }
  void OnDisconnect(void* writer) override {
    std::lock_guard<std::mutex> lock(mutex_);
    ++writers_[Index(writer)].disconnects;
  }
  void OnTick() override { ++ticks; }

  std::vector<Writer> writers() {
    std::lock_guard<std::mutex> lock(mutex_);
    return writers_;
  }
  // The writers' bytes, sorted.
  std::vector<std::string> streams() {
    std::vector<std::string> all;
    for (const Writer& w : writers()) all.push_back(w.bytes);
    std::sort(all.begin(), all.end());
    return all;
  }

  std::atomic<int> ticks{0};

 private:
  static std::size_t Index(void* writer) { return reinterpret_cast<std::size_t>(writer) - 1; }
  std::mutex mutex_;
  std::vector<Writer> writers_;
};

class PipeReadLoopTest : public testing::ScratchNameTest {
 protected:
  void SetUp() override {
    ScratchNameTest::SetUp();
    ASSERT_EQ(loop_.Listen(name(), PipeMode::kMessage), kErrorSuccess);
  }
  void TearDown() override {
    loop_.Shutdown();
    if (runner_.joinable()) runner_.join();
    ScratchNameTest::TearDown();
  }

  static void Send(PipeStream* writer, const std::string& text) {
    uint32_t written = 0;
    ASSERT_EQ(writer->Write(text.data(), static_cast<uint32_t>(text.size()), &written), kErrorSuccess);
    ASSERT_EQ(written, text.size());
  }
  // True once `count` writers have arrived (bounded wait).
  bool WaitForWriters(std::size_t count, bool disconnected) {
    for (int i = 0; i < 500; ++i, SleepMs(10)) {
      std::size_t seen = 0;
      for (const Recorder::Writer& w : recorder_.writers()) seen += !disconnected || w.disconnects > 0;
      if (seen >= count) return true;
    }
    return false;
  }

  std::thread runner_;
  PipeReadLoop loop_;
  Recorder recorder_;
};

TEST_F(PipeReadLoopTest, ReadsEveryWriterInOrderAndAtShutdownWhatTheyHadSent) {
  runner_ = std::thread([this] { EXPECT_EQ(loop_.Run(&recorder_, 20), kErrorSuccess); });
  PipeStream writers[4];
  for (PipeStream& w : writers) ASSERT_EQ(OpenClient(&w), kErrorSuccess);
  ASSERT_TRUE(WaitForWriters(4, false));
  // One message far longer than the loop's buffer: it arrives in pieces, whole and in place.
  const std::string long_message(300000, 'x');
  for (int round = 1; round <= 3; ++round) {
    for (int i = 0; i < 4; ++i) {
      if (round == 3 && i == 0) continue;
      Send(&writers[i], std::string(1, char('A' + i)) + std::to_string(round) + (round == 2 && i == 3 ? long_message : ""));
    }
    if (round == 2) writers[0].Close();  // hangs up in the middle: its end arrives on its own
  }
  ASSERT_TRUE(WaitForWriters(1, true));
  loop_.Shutdown();
  runner_.join();

  EXPECT_EQ(recorder_.streams(), (std::vector<std::string>{"A1A2", "B1B2B3", "C1C2C3", "D1D2" + long_message + "D3"}));
  for (const Recorder::Writer& w : recorder_.writers()) EXPECT_EQ(w.disconnects, 1) << w.bytes;
  EXPECT_GE(recorder_.ticks.load(), 1);
  // The loop has let go of the writers: what they write now fails instead of vanishing.
  uint32_t written = 0;
  EXPECT_NE(writers[1].Write("late", 4, &written), kErrorSuccess);
}

TEST_F(PipeReadLoopTest, ShutdownBeforeRunStillReadsTheWritersWaiting) {
  PipeStream writer;
  ASSERT_EQ(OpenClient(&writer), kErrorSuccess);
  Send(&writer, "early");
  loop_.Shutdown();
  EXPECT_EQ(loop_.Run(&recorder_, 20), kErrorSuccess);
  EXPECT_EQ(recorder_.streams(), std::vector<std::string>{"early"});
  EXPECT_EQ(recorder_.writers().at(0).disconnects, 1);
  // The pipe is gone.
  PipeStream another;
  EXPECT_NE(another.Open(name(), false), kErrorSuccess);
}

}  // namespace
}  // namespace orlenda::platform
