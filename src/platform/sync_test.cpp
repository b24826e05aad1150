#include "platform/sync.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <tuple>
#include <vector>

#include "platform/thread.h"

namespace orlenda::platform {
namespace {

TEST(CriticalSectionTest, ReentersOnOwnerAndExcludesOthersAndSerialisesIncrements) {
  CriticalSection cs;
  const auto other_enters = [&] {
    bool got = false;
    std::thread([&] {
      got = cs.TryEnter();
      if (got) cs.Leave();
    }).join();
    return got;
  };
  cs.Enter();
  cs.Enter();
  EXPECT_TRUE(cs.TryEnter());
  EXPECT_FALSE(other_enters());
  cs.Leave();
  cs.Leave();
  EXPECT_FALSE(other_enters());  // still held after leaving only some of the entries
  cs.Leave();
  EXPECT_TRUE(other_enters());

  long counter = 0;  // deliberately not atomic: only the lock protects it
  constexpr int kThreads = 4;
  constexpr int kRounds = 20000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < kRounds; ++i) {
        ScopedLock lock(cs);
        ScopedLock again(cs);  // nested, as callers re-enter through helper functions
        long seen = counter;
        counter = seen + 1;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(counter, static_cast<long>(kThreads) * kRounds);
}

// S sets, R resets, + is a wait that succeeds, - one that times out.
TEST(EventTest, SetsResetsAndWaitsInSequence) {
  const std::tuple<ResetMode, bool, const char*> cases[] = {  // the mode, set at the start, the script
      {ResetMode::kManual, false, "-S++R-"},
      {ResetMode::kManual, true, "++"},
      {ResetMode::kAuto, true, "+-SS+-SR-"},  // setting a set event does not count twice
  };
  for (const auto& [mode, initially, script] : cases) {
    Event event(mode, initially);
    for (const char* op = script; *op != '\0'; ++op) {
      if (*op == 'S') event.Set();
      if (*op == 'R') event.Reset();
      if (*op == '+' || *op == '-') {
        EXPECT_EQ(event.Wait(*op == '+' ? 100 : 0), *op == '+') << script << " at " << op - script;
      }
    }
  }
}

// Half the waiters wait on the event alone, half on another event, never set, and it (WaitForAny).
TEST(EventTest, ManualReleasesEveryWaiterAndAutoExactlyOnePerSet) {
  constexpr int kWaiters = 4;
  for (ResetMode mode : {ResetMode::kManual, ResetMode::kAuto}) {
    const bool manual = mode == ResetMode::kManual;
    SCOPED_TRACE(manual ? "manual" : "auto");
    Event event(mode), never(ResetMode::kAuto);
    std::atomic<int> released{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < kWaiters; ++i) {
      waiters.emplace_back([&, i] {
        Event* events[] = {&never, &event};
        if (i % 2 == 0 ? event.Wait(kInfinite) : WaitForAny(events, 2, kInfinite) == 1) ++released;
      });
    }
    SleepMs(50);
    EXPECT_EQ(released.load(), 0);
    for (int round = 1; round <= (manual ? 1 : kWaiters); ++round) {
      event.Set();
      const int expected = manual ? kWaiters : round;
      for (int i = 0; i < 500 && released.load() < expected; ++i) SleepMs(10);  // bounded: five seconds
      ASSERT_GE(released.load(), expected) << "round " << round;
      SleepMs(30);  // give a wrongly woken waiter time to show up
      EXPECT_EQ(released.load(), expected);
    }
    for (auto& waiter : waiters) waiter.join();
    EXPECT_EQ(event.Wait(0), manual);
  }
}

TEST(EventTest, WaitsTimeOutNeitherEarlyNorLate) {
  Event event(ResetMode::kManual), other(ResetMode::kAuto);
  Event* events[] = {&event, &other};
  for (int any = 0; any < 2; ++any) {
    SCOPED_TRACE(any ? "WaitForAny" : "Wait");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(any ? WaitForAny(events, 2, 100) : (event.Wait(100) ? 0 : kWaitTimeout), kWaitTimeout);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, std::chrono::milliseconds(80));
    EXPECT_LT(elapsed, std::chrono::seconds(5));
  }
}

TEST(WaitForAnyTest, LowestSetIndexWinsAndOnlyItIsConsumed) {
  Event a(ResetMode::kAuto), b(ResetMode::kAuto), c(ResetMode::kAuto), m(ResetMode::kManual);
  Event* events[] = {&a, &b, &c, &m};
  c.Set();
  b.Set();
  m.Set();
  for (int winner : {1, 2, 3, 3}) EXPECT_EQ(WaitForAny(events, 4, 0), winner);  // the manual one, again and again
  a.Set();
  EXPECT_EQ(WaitForAny(events, 4, 0), 0);

  Event* manual_first[] = {&m, &a};
  a.Set();
  EXPECT_EQ(WaitForAny(manual_first, 2, 0), 0);
  EXPECT_TRUE(a.Wait(0)) << "an event after the winner must not be consumed";
}

}  // namespace
}  // namespace orlenda::platform
