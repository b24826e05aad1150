#include "platform/thread.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <ctime>

namespace orlenda::platform {
namespace {

struct Work {
  std::atomic<int> runs{0};
  uint32_t thread_id = 0;
  uint32_t process_id = 0;
  bool finished = false;  // written by the thread, read after Join: Join must order them
};

void SlowWork(void* arg) {
  auto* work = static_cast<Work*>(arg);
  SleepMs(50);
  work->thread_id = CurrentThreadId();
  work->process_id = CurrentProcessId();
  ++work->runs;
  work->finished = true;
}

TEST(ThreadTest, RunsEntryOnItsOwnThreadAndJoinWaitsForIt) {
  Work work;
  Thread thread;
  EXPECT_FALSE(thread.joinable());
  ASSERT_TRUE(thread.Start(SlowWork, &work));
  EXPECT_TRUE(thread.joinable());
  thread.Join();
  EXPECT_FALSE(thread.joinable());
  EXPECT_TRUE(work.finished);
  EXPECT_EQ(work.runs.load(), 1);
  EXPECT_NE(work.thread_id, CurrentThreadId());
  EXPECT_EQ(work.process_id, CurrentProcessId());
  EXPECT_NE(CurrentProcessId(), 0u);
  thread.Join();  // nothing left to join

  // The object can start another thread once joined.
  ASSERT_TRUE(thread.Start(SlowWork, &work));
  thread.Join();
  EXPECT_EQ(work.runs.load(), 2);
}

TEST(TimeTest, SleepAndTickCountAgree) {
  auto start = std::chrono::steady_clock::now();
  uint32_t tick_start = TickCountMs();
  SleepMs(100);
  uint32_t ticks = TickCountMs() - tick_start;
  auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(
                     std::chrono::steady_clock::now() - start)
                     .count();
  EXPECT_GE(elapsed, 80);
  EXPECT_LT(elapsed, 5000);
  EXPECT_GE(ticks, 80u);
  EXPECT_LT(ticks, 5000u);

  uint32_t previous = TickCountMs();
  for (int i = 0; i < 10000; ++i) {
    uint32_t now = TickCountMs();
    ASSERT_LT(now - previous, 1000u) << "tick count went backwards or jumped";
    previous = now;
  }
}

TEST(TimeTest, FileTimeIsUtcSince1601) {
  constexpr uint64_t k1970 = 116444736000000000ull;
  uint64_t expected = k1970 + static_cast<uint64_t>(std::time(nullptr)) * 10000000ull;
  uint64_t now = FileTimeNow();
  uint64_t distance = now > expected ? now - expected : expected - now;
  EXPECT_LT(distance, 5ull * 10000000ull);
}

TEST(TimeTest, LocalTimeMatchesTheCLibrary) {
  constexpr uint64_t k1970 = 116444736000000000ull;
  std::time_t t = std::time(nullptr);
  // 0.4567 s past the second: the milliseconds are truncated, not rounded.
  uint64_t filetime = k1970 + static_cast<uint64_t>(t) * 10000000ull + 4567000ull;
  LocalTime local = ToLocalTime(filetime);
  std::tm expected = *std::localtime(&t);
  EXPECT_EQ(local.year, expected.tm_year + 1900);
  EXPECT_EQ(local.month, expected.tm_mon + 1);
  EXPECT_EQ(local.day, expected.tm_mday);
  EXPECT_EQ(local.hour, expected.tm_hour);
  EXPECT_EQ(local.minute, expected.tm_min);
  EXPECT_EQ(local.second, expected.tm_sec);
  EXPECT_EQ(local.millisecond, 456);
}

}  // namespace
}  // namespace orlenda::platform
