// Many request threads on the same few ports at once: open, lock, write (with the echoes flowing
// back as events), notify, let the device blip away and back, unlock or vanish, close. One of the
// ports is a slow device (every write takes a millisecond or more in the component). Run under
// ThreadSanitizer and AddressSanitizer this shows the absence of data races and leaks; the test
// itself checks that no thread waits forever, that a keyless holder always holds alone, and that
// nothing (port record, stack instance) is left at the end.
#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "support/port_test_fixture.h"

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
  std::atomic<int> finished{0};
  std::atomic<long> echoes{0};
};

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
      ADD_FAILURE() << "open <" << std::hex << result << ">";
      continue;
    }

    result = Lock(c);
    if (result == SKR_LOCK_PENDING && Eventually([&] { return c.lock_granted(); }, kGrantWait)) result = SKR_SUCCESS;
    if (result != SKR_SUCCESS) {
      ADD_FAILURE() << "lock never granted <" << std::hex << result << ">";
      c.Close();
      continue;
    }

    // A keyless holder holds alone; keyed holders never beside a keyless one.
    std::atomic<int>& mine = keyed ? shared.keyed_holders[p] : shared.plain_holders[p];
    std::atomic<int>& other_kind = keyed ? shared.plain_holders[p] : shared.keyed_holders[p];
    if ((mine.fetch_add(1) != 0 && !keyed) || other_kind.load() != 0) ADD_FAILURE() << "holders beside a keyless one";

    for (int w = 0; w < kWritesPerHold; ++w) {
      uint32_t written = 0;
      EXPECT_EQ(WriteText(c, "round", &written), SKR_SUCCESS);
      EXPECT_EQ(written, 5u);
    }
    BlobRef output;
    if (round % 3 == 2) c.Ioctl(SK_PORT_NOTIFY, Bytes("hi"), &output);
    if (!keyed && round % 5 == 1) {
      // The device is taken by someone outside for a moment, then given back; the holder keeps
      // its turn.
      if (c.Ioctl(kLoopbackSetLockState, Dword(2), &output) != SKR_SUCCESS ||
          c.Ioctl(kLoopbackSetLockState, Dword(3), &output) != SKR_SUCCESS) {
        ADD_FAILURE() << "device blip";
      }
    }

    mine.fetch_sub(1);
    if (round % 4 == 3) {
      c.Close();  // vanishes with the lock: Close passes it on
    } else {
      if (Lock(c, 2) != SKR_SUCCESS) ADD_FAILURE() << "unlock";
      if (c.Close() != SKR_SUCCESS) ADD_FAILURE() << "close";
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
  if (!Eventually([&] { return shared.finished.load() == kThreads; }, kRunLimit)) {
    std::fprintf(stderr, "stress: %d of %d threads still running after the limit: deadlock\n",
                 kThreads - shared.finished.load(), kThreads);
    std::abort();
  }
  for (auto& t : threads) t.join();

  // Every write echoes at least to its own writer, which collects before it leaves the round.
  EXPECT_GE(shared.echoes.load(), static_cast<long>(kThreads) * kRounds * kWritesPerHold);

  // No port record is left (the fixture checks), and every stack instance was closed: the loopback
  // knows none of the numbers any more.
  for (uint32_t number = 1; number <= kThreads; ++number) {
    EXPECT_EQ(ModuleIoctl(u"loopback", number, SK_LOCK_STATE, 0), SKR_INVALID_HANDLE) << number;
  }
}

}  // namespace
}  // namespace orlenda
