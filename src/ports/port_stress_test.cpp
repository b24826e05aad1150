// Many request threads on the same few ports at once: open, lock, write (with the echoes flowing
// back as events), notify, let the device blip away and back, unlock or vanish, close. One of the
// ports is a slow device (every write takes a millisecond or more in the component). Run under
// ThreadSanitizer and AddressSanitizer this shows the absence of data races and leaks; the test
// itself checks that no thread waits forever, that a keyless holder always holds alone, and that
// nothing (port record, stack instance) is left at the end.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "ports/port_test_fixture.h"

namespace orlenda {
namespace {

using namespace orlenda::port_testing;  // NOLINT: the fixture helpers

constexpr int kThreads = 24;
constexpr int kPorts = 4;
constexpr int kRounds = 40;
constexpr int kWritesPerHold = 3;
// Correctness bounds, far above what a round needs even under a sanitizer.
constexpr auto kGrantWait = std::chrono::seconds(60);
constexpr auto kRunLimit = std::chrono::seconds(300);

const char16_t* const kNames[kPorts] = {u"loop/dev1", u"loop/dev2", u"loop/dev3", u"mixed/dev1"};

struct Shared {
  std::atomic<int> plain_holders[kPorts] = {}, keyed_holders[kPorts] = {};  // per port
  std::atomic<int> violations{0};
  std::atomic<int> failures{0};
  std::atomic<int> finished{0};
  std::atomic<long> writes{0};
  std::atomic<long> echoes{0};
};

void Fail(Shared& shared, const char* what, uint32_t result) {
  if (shared.failures.fetch_add(1) < 10) std::fprintf(stderr, "stress: %s <%08x>\n", what, result);
}

// One request thread's life: kRounds visits, each to one of the ports.
void Worker(Shared& shared, int index) {
  LocalConnection c;
  c.RegisterCallback(kLoopbackData);
  c.RegisterCallback(SK_EVENT_LOCK);
  c.RegisterCallback(SK_EVENT_NOTIFY);
  const bool keyed = index % 4 == 0;

  for (int round = 0; round < kRounds; ++round) {
    const int p = (index + round) % kPorts;
    WString name(kNames[p]);
    if (keyed) name += (index % 8 == 0) ? u"?key=a" : u"?key=b";
    uint32_t result = c.Open(&name);
    if (result != SKR_SUCCESS) {
      Fail(shared, "open", result);
      continue;
    }

    result = Lock(c);
    if (result == SKR_LOCK_PENDING) {
      const auto deadline = std::chrono::steady_clock::now() + kGrantWait;
      while (!c.lock_granted() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
      result = c.lock_granted() ? SKR_SUCCESS : SKR_LOCK_PENDING;
    }
    if (result != SKR_SUCCESS) {
      Fail(shared, "lock never granted", result);
      c.Close();
      continue;
    }

    // A keyless holder holds alone; keyed holders never beside a keyless one.
    std::atomic<int>& mine = keyed ? shared.keyed_holders[p] : shared.plain_holders[p];
    std::atomic<int>& other_kind = keyed ? shared.plain_holders[p] : shared.keyed_holders[p];
    if ((mine.fetch_add(1) != 0 && !keyed) || other_kind.load() != 0) shared.violations.fetch_add(1);

    for (int w = 0; w < kWritesPerHold; ++w) {
      uint32_t written = 0;
      result = WriteText(c, "round", &written);
      if (result != SKR_SUCCESS || written != 5) {
        Fail(shared, "write", result);
      } else {
        shared.writes.fetch_add(1);
      }
    }
    BlobRef output;
    if (round % 3 == 2) c.Ioctl(SK_PORT_NOTIFY, Bytes("hi"), &output);
    if (!keyed && round % 5 == 1) {
      // The device is taken by someone outside for a moment, then given back; the holder keeps
      // its turn.
      if (c.Ioctl(kLoopbackSetLockState, Dword(2), &output) != SKR_SUCCESS ||
          c.Ioctl(kLoopbackSetLockState, Dword(3), &output) != SKR_SUCCESS) {
        Fail(shared, "device blip", 0);
      }
    }

    mine.fetch_sub(1);
    if (round % 4 == 3) {
      c.Close();  // vanishes with the lock: Close passes it on
    } else {
      if (Lock(c, 2) != SKR_SUCCESS) Fail(shared, "unlock", 0);
      if (c.Close() != SKR_SUCCESS) Fail(shared, "close", 0);
    }
    for (const auto& e : c.TakeEvents()) {
      if (e.event == kLoopbackData) shared.echoes.fetch_add(1);
    }
  }
  shared.finished.fetch_add(1);
}

TEST_F(PortTest, ManyThreadsOnFewPorts) {
  // The slow port's module records nothing (its record goes through the store, one save a call).
  ASSERT_TRUE(SetNumberProperty(u"/testmodule/test_component/writeDelayMs", 1));
  ASSERT_TRUE(SetNumberProperty(u"/testmodule/test_component/quiet", 1));
  Shared shared;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) threads.emplace_back(Worker, std::ref(shared), i);

  // A deadlock must fail the run, not hang it: threads cannot be cancelled, so the process ends.
  const auto deadline = std::chrono::steady_clock::now() + kRunLimit;
  while (shared.finished.load() < kThreads) {
    if (std::chrono::steady_clock::now() > deadline) {
      std::fprintf(stderr, "stress: %d of %d threads still running after the limit: deadlock\n",
                   kThreads - shared.finished.load(), kThreads);
      std::abort();
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  for (auto& t : threads) t.join();

  EXPECT_EQ(shared.violations.load(), 0);
  EXPECT_EQ(shared.failures.load(), 0);
  EXPECT_EQ(shared.writes.load(), static_cast<long>(kThreads) * kRounds * kWritesPerHold);
  // Every write echoes at least to its own writer, which collects before it leaves the round.
  EXPECT_GE(shared.echoes.load(), shared.writes.load());

  EXPECT_FALSE(PortTable::IsAnyPortLocked());
  // No port record is left (the fixture checks), and every stack instance was closed: the loopback
  // knows none of the numbers any more.
  CComponent* loopback = CConfiguration::FindComponent(u"loopback");
  ASSERT_NE(loopback, nullptr);
  for (uint32_t number = 1; number <= kThreads; ++number) {
    Blob* output = nullptr;
    EXPECT_EQ(loopback->Ioctl(number, SK_LOCK_STATE, nullptr, &output), SKR_INVALID_HANDLE) << number;
    BlobRelease(output);
  }
}

}  // namespace
}  // namespace orlenda
