#include "platform/sync.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "platform/thread.h"

namespace orlenda::platform {
namespace {

using Clock = std::chrono::steady_clock;

long long MsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

// Polls `done` for up to five seconds; the tests' guard against hanging on a broken event.
template <typename F>
bool Eventually(F done) {
  for (int i = 0; i < 500; ++i) {
    if (done()) return true;
    SleepMs(10);
  }
  return done();
}

TEST(CriticalSectionTest, ReentersOnOwnerAndExcludesOthers) {
  CriticalSection cs;
  cs.Enter();
  cs.Enter();
  EXPECT_TRUE(cs.TryEnter());
  bool other_got_it = true;
  std::thread([&] { other_got_it = cs.TryEnter(); }).join();
  EXPECT_FALSE(other_got_it);

  // Still held after leaving only some of the entries.
  cs.Leave();
  cs.Leave();
  std::thread([&] { other_got_it = cs.TryEnter(); }).join();
  EXPECT_FALSE(other_got_it);

  cs.Leave();
  std::thread([&] {
    other_got_it = cs.TryEnter();
    if (other_got_it) cs.Leave();
  }).join();
  EXPECT_TRUE(other_got_it);
}

TEST(CriticalSectionTest, SerialisesIncrementsAcrossThreads) {
  CriticalSection cs;
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

TEST(EventTest, ManualStaysSetUntilResetAndReleasesEveryWaiter) {
  Event event(ResetMode::kManual);
  EXPECT_FALSE(event.Wait(0));

  constexpr int kWaiters = 5;
  std::atomic<int> released{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < kWaiters; ++i) {
    waiters.emplace_back([&] {
      if (event.Wait(kInfinite)) ++released;
    });
  }
  SleepMs(50);
  EXPECT_EQ(released.load(), 0);
  event.Set();
  for (auto& waiter : waiters) waiter.join();
  EXPECT_EQ(released.load(), kWaiters);

  EXPECT_TRUE(event.Wait(0));
  EXPECT_TRUE(event.Wait(0));
  event.Reset();
  EXPECT_FALSE(event.Wait(0));

  Event initially(ResetMode::kManual, true);
  EXPECT_TRUE(initially.Wait(0));
  EXPECT_TRUE(initially.Wait(0));
}

TEST(EventTest, AutoIsConsumedByOneWait) {
  Event event(ResetMode::kAuto, true);
  EXPECT_TRUE(event.Wait(0));
  EXPECT_FALSE(event.Wait(0));
  event.Set();
  event.Set();  // setting a set event does not count twice
  EXPECT_TRUE(event.Wait(100));
  EXPECT_FALSE(event.Wait(0));
  event.Set();
  event.Reset();
  EXPECT_FALSE(event.Wait(0));
}

TEST(EventTest, AutoReleasesExactlyOneWaiterPerSet) {
  Event event(ResetMode::kAuto);
  constexpr int kWaiters = 4;
  std::atomic<int> released{0};
  std::vector<std::thread> waiters;
  for (int i = 0; i < kWaiters; ++i) {
    waiters.emplace_back([&] {
      if (event.Wait(kInfinite)) ++released;
    });
  }
  SleepMs(50);
  for (int round = 1; round <= kWaiters; ++round) {
    event.Set();
    ASSERT_TRUE(Eventually([&] { return released.load() >= round; })) << "round " << round;
    SleepMs(30);  // give a wrongly woken second waiter time to show up
    EXPECT_EQ(released.load(), round);
  }
  for (auto& waiter : waiters) waiter.join();
  EXPECT_FALSE(event.Wait(0));
}

TEST(EventTest, WaitsTimeOutNeitherEarlyNorLate) {
  Event event(ResetMode::kManual), other(ResetMode::kAuto);
  Event* events[] = {&event, &other};
  for (int any = 0; any < 2; ++any) {
    Clock::time_point start = Clock::now();
    if (any == 0) {
      EXPECT_FALSE(event.Wait(100));
    } else {
      EXPECT_EQ(WaitForAny(events, 2, 100), kWaitTimeout);
    }
    const long long elapsed = MsSince(start);
    EXPECT_GE(elapsed, 80) << (any ? "WaitForAny" : "Wait");
    EXPECT_LT(elapsed, 5000) << (any ? "WaitForAny" : "Wait");
  }
}

TEST(WaitForAnyTest, LowestSetIndexWinsAndOnlyItIsConsumed) {
  Event a(ResetMode::kAuto), b(ResetMode::kAuto), c(ResetMode::kAuto), m(ResetMode::kManual);
  Event* events[] = {&a, &b, &c, &m};
  c.Set();
  b.Set();
  m.Set();
  EXPECT_EQ(WaitForAny(events, 4, 0), 1);
  EXPECT_EQ(WaitForAny(events, 4, 0), 2);
  EXPECT_EQ(WaitForAny(events, 4, 0), 3);  // manual: returned again and again
  EXPECT_EQ(WaitForAny(events, 4, 0), 3);
  a.Set();
  EXPECT_EQ(WaitForAny(events, 4, 0), 0);
  EXPECT_TRUE(m.Wait(0));

  Event* manual_first[] = {&m, &a};
  a.Set();
  EXPECT_EQ(WaitForAny(manual_first, 2, 0), 0);
  EXPECT_TRUE(a.Wait(0)) << "an event after the winner must not be consumed";
}

TEST(WaitForAnyTest, SharedAutoEventGoesToOneOfTwoMultiWaiters) {
  // Each waits on its own event and the shared one; one Set from this thread wakes exactly one.
  Event shared(ResetMode::kAuto), own1(ResetMode::kAuto), own2(ResetMode::kAuto);
  std::atomic<int> took_shared{0};
  auto waiter = [&](Event* own) {
    Event* events[] = {own, &shared};
    int index = WaitForAny(events, 2, kInfinite);
    if (index == 1) ++took_shared;
  };
  std::thread first(waiter, &own1), second(waiter, &own2);
  SleepMs(50);
  shared.Set();
  ASSERT_TRUE(Eventually([&] { return took_shared.load() == 1; }));
  SleepMs(30);
  EXPECT_EQ(took_shared.load(), 1);
  own1.Set();
  own2.Set();
  first.join();
  second.join();
  EXPECT_EQ(took_shared.load(), 1);
  EXPECT_FALSE(shared.Wait(0));
}

}  // namespace
}  // namespace orlenda::platform
