// A slow device delays nobody but its own callers, and a component may call back into the service
// from inside its operations and its own threads.
//
// The slow device is the test module holding every Write until it is let go (30 s at most). What
// must not wait for it runs under a bound well below that; if it does not finish, the hold is let
// go and the test fails (and a real deadlock ends the process rather than hanging the run).
#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "support/port_test_fixture.h"

namespace orlenda {
namespace {

using namespace orlenda::port_testing;  // NOLINT: the fixture helpers

constexpr auto kBound = std::chrono::seconds(20);

class IsolationTest : public PortTest {
 protected:
  void TearDown() override {
    SetHold(0);
    for (std::thread& t : background_) t.join();
    PortTest::TearDown();
  }

  // Holds the Writes of port `number` in the test module (0 lets them go), straight to the module.
  static void SetHold(uint32_t number) { ModuleIoctl(u"test_component", 0, kTestHoldWrites, number); }

  // Starts `work` on a thread of its own, joined at the end of the test.
  void InBackground(std::function<void()> work) { background_.emplace_back(std::move(work)); }

  // Runs `work`, which must not wait for the held device: past the bound the hold is let go and
  // the test fails; past twice the bound the process ends (a deadlock).
  static void WithoutWaitingForTheDevice(const std::function<void()>& work) {
    std::atomic<bool> done{false};
    std::thread worker([&] {
      work();
      done = true;
    });
    if (!Eventually([&] { return done.load(); }, kBound)) {
      ADD_FAILURE() << "the requests waited for the held device";
      SetHold(0);
      if (!Eventually([&] { return done.load(); }, kBound)) {
        std::fprintf(stderr, "isolation: requests still waiting after the device was let go: deadlock\n");
        std::abort();
      }
    }
    worker.join();
  }

  // Open, lock, write and close on a port of its own, each succeeding.
  static void UseAnotherPort(const char16_t* name) {
    LocalConnection other;
    EXPECT_EQ(OpenName(other, name), SKR_SUCCESS) << std::string(name, name + 5);
    EXPECT_EQ(Lock(other), SKR_SUCCESS);
    EXPECT_EQ(WriteText(other, "other"), SKR_SUCCESS);
    EXPECT_EQ(other.Close(), SKR_SUCCESS);
  }

 private:
  std::vector<std::thread> background_;
};

TEST_F(IsolationTest, AHeldWriteDelaysNobodyElseAndTheLastCloseWaitsForItAlone) {
  LocalConnection writer;
  ASSERT_EQ(OpenName(writer, u"mixed/dev1"), SKR_SUCCESS);
  ASSERT_EQ(Lock(writer), SKR_SUCCESS);
  SetHold(writer.port_number());
  std::atomic<uint32_t> write_result{0xFFFFFFFFu};
  std::atomic<uint32_t> close_result{0xFFFFFFFFu};
  InBackground([&] { write_result = WriteText(writer, "slow"); });
  EXPECT_TRUE(Eventually([&] {
    BlobRef output;
    uint32_t held = 0;
    return writer.Ioctl(kTestHeldWrites, BlobRef(), &output) == SKR_SUCCESS && DwordBlobRead(output.get(), &held) &&
           held == 1;
  }, kBound)) << "the write never reached the device";

  WithoutWaitingForTheDevice([] {
    UseAnotherPort(u"loop/dev1");
    UseAnotherPort(u"mixed/dev2");  // another port of the same slow module
    LocalConnection member;         // another member of the held port
    EXPECT_EQ(OpenName(member, u"mixed/dev1"), SKR_SUCCESS);
    EXPECT_EQ(Lock(member), SKR_LOCK_PENDING);
    EXPECT_EQ(Lock(member, 2), SKR_SUCCESS);
    EXPECT_EQ(member.Close(), SKR_SUCCESS);
  });

  // The last Close takes the port out of the table before it waits for the write.
  InBackground([&] { close_result = writer.Close(); });
  ASSERT_TRUE(Eventually([] { return PortTable::Size() == 0; }, kBound));
  WithoutWaitingForTheDevice([] {
    UseAnotherPort(u"loop/dev1");
    // The closing port's name opens anew, on a number of its own.
    LocalConnection again;
    EXPECT_EQ(OpenName(again, u"mixed/dev1"), SKR_SUCCESS);
    EXPECT_NE(again.port_number(), 1u);
    EXPECT_EQ(again.Close(), SKR_SUCCESS);
  });
  EXPECT_EQ(close_result, 0xFFFFFFFFu);  // still waiting for the write

  SetHold(0);
  EXPECT_TRUE(Eventually([&] { return close_result != 0xFFFFFFFFu; }, kBound));
  EXPECT_EQ(write_result, SKR_SUCCESS);
  // The module answers a Close that overlaps one of its Writes with SKR_FAILED.
  EXPECT_EQ(close_result, SKR_SUCCESS);
}

TEST_F(IsolationTest, AComponentMayEnumerateItsOwnPortFromInsideAndFromItsThread) {
  ASSERT_TRUE(SetNumberProperty(u"/EnumeratePort", 1));
  const std::u16string request = u"test_component:ioctl:1;";
  for (const uint32_t code : {kTestEnumerate, kTestEnumerateOnThread}) {
    for (const bool locked : {false, true}) {
      SCOPED_TRACE(::testing::Message() << std::hex << code << " locked " << locked);
      LocalConnection outer;
      ASSERT_EQ(OpenName(outer, u"mixed/dev1"), SKR_SUCCESS);
      ASSERT_EQ(locked ? Lock(outer) : SKR_SUCCESS, SKR_SUCCESS);
      testing::ClearRecordedCalls();
      BlobRef answer;
      WithoutWaitingForTheDevice([&] { EXPECT_EQ(outer.Ioctl(code, Utf16(u"mixed/dev1"), &answer), SKR_SUCCESS); });
      EXPECT_EQ(Text(answer), std::string(4, '\0'));  // enumerated: 0
      // What the module saw: the request, then the enumeration's lock and value (which loopback
      // refuses, so the answer is 0). With the lock held by the caller the enumeration's lock
      // request waits, and it gives up.
      EXPECT_EQ(testing::RecordedCalls(), locked ? request : request + request + request);
      EXPECT_EQ(PortTable::Size(), 1u);  // the enumeration's connection is gone again
      EXPECT_EQ(outer.lock_granted(), locked);
      EXPECT_EQ(outer.Close(), SKR_SUCCESS);
    }
  }
}

}  // namespace
}  // namespace orlenda
