#include "platform/thread.h"

#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <vector>

namespace orlenda::platform {
namespace {

// Written by the thread, read after Join: Join must order them.
struct Work {
  int runs = 0;
  uint32_t thread_id = 0, process_id = 0;
};

void SlowWork(void* arg) {
  auto* work = static_cast<Work*>(arg);
  SleepMs(50);
  work->thread_id = CurrentThreadId();
  work->process_id = CurrentProcessId();
  ++work->runs;
}

TEST(ThreadTest, RunsEntryOnItsOwnThreadAndJoinWaitsForIt) {
  Work work;
  Thread thread;
  ASSERT_TRUE(thread.Start(SlowWork, &work));
  EXPECT_TRUE(thread.joinable());
  thread.Join();
  EXPECT_FALSE(thread.joinable());
  EXPECT_EQ(work.runs, 1);
  EXPECT_NE(work.thread_id, CurrentThreadId());
  EXPECT_EQ(work.process_id, CurrentProcessId());
  EXPECT_NE(CurrentProcessId(), 0u);
  thread.Join();  // nothing left to join

  // The object can start another thread once joined.
  ASSERT_TRUE(thread.Start(SlowWork, &work));
  thread.Join();
  EXPECT_EQ(work.runs, 2);
}

TEST(TimeTest, SleepAndTickCountAgree) {
  const auto start = std::chrono::steady_clock::now();
  const uint32_t tick_start = TickCountMs();
  SleepMs(100);
  const uint32_t ticks = TickCountMs() - tick_start;
  const auto elapsed = std::chrono::steady_clock::now() - start;
  EXPECT_GE(elapsed, std::chrono::milliseconds(80));
  EXPECT_LT(elapsed, std::chrono::seconds(5));
  EXPECT_GE(ticks, 80u);
  EXPECT_LT(ticks, 5000u);
}

TEST(TimeTest, FileTimeIsUtcSince1601AndReadsAsLocalTime) {
  const std::time_t t = std::time(nullptr);
  const uint64_t utc = 116444736000000000ull + static_cast<uint64_t>(t) * 10000000ull, now = FileTimeNow();
  EXPECT_LT(now > utc ? now - utc : utc - now, 5ull * 10000000ull);
  // 0.4567 s past the second: the milliseconds are truncated, not rounded.
  const LocalTime l = ToLocalTime(utc + 4567000ull);
  const std::tm e = *std::localtime(&t);
  EXPECT_EQ((std::vector<int>{l.year, l.month, l.day, l.hour, l.minute, l.second, l.millisecond}),
            (std::vector<int>{e.tm_year + 1900, e.tm_mon + 1, e.tm_mday, e.tm_hour, e.tm_min, e.tm_sec, 456}));
}

}  // namespace
}  // namespace orlenda::platform
