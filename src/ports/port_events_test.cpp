// Event registration, delivery and its filters (bits 28 and 29), with the traces.
#include <gtest/gtest.h>

#include "ports/port_test_fixture.h"
#include "support/log_capture.h"

namespace orlenda {
namespace {

using testing::Dump;
using testing::IndexOf;
using testing::IndexOfPrefix;
using testing::LogCapture;
using testing::LogLine;
using namespace orlenda::port_testing;  // NOLINT: the fixture helpers

std::vector<uint32_t> EventIds(LocalConnection& c) {
  std::vector<uint32_t> ids;
  for (const auto& e : c.TakeEvents()) ids.push_back(e.event);
  return ids;
}

// Raises `event` from the test component at the bottom of the plain stack. The raise code has
// bits 30 and 29 set, so the connection must hold lock granted (which the plain stack gives to
// every lock request, refusing the stack's lock).
uint32_t Raise(CSKConnection& c, uint32_t event) {
  BlobRef output;
  return c.Ioctl(kTestRaiseEvent, Dword(event), &output);
}

TEST_F(PortTest, RegistrationIsTracedAndCountsOnce) {
  LogCapture capture;
  LocalConnection c;
  ASSERT_EQ(OpenName(c, u"loop/dev1"), SKR_SUCCESS);
  EXPECT_EQ(c.RegisterCallback(kLoopbackData), SKR_SUCCESS);
  EXPECT_EQ(c.RegisterCallback(kLoopbackData), SKR_SUCCESS);
  EXPECT_EQ(c.UnregisterCallback(kLoopbackData), SKR_SUCCESS);
  EXPECT_EQ(c.UnregisterCallback(kLoopbackData), SKR_SUCCESS);
  ASSERT_EQ(Lock(c), SKR_SUCCESS);
  c.TakeEvents();
  ASSERT_EQ(WriteText(c, "gone"), SKR_SUCCESS);
  EXPECT_TRUE(c.TakeEvents().empty());  // one unregister removed the double registration
  ASSERT_EQ(c.Close(), SKR_SUCCESS);

  const std::vector<LogLine> lines = capture.Lines();
  const std::u16string id = TraceId(c);
  int previous = -1;  // in this order
  for (const char16_t* line : {u"RegisterCallback(1, 00070001) <SKR_SUCCESS>",
                               u"RegisterCallback(1, 00070001) <SKR_SUCCESS> already registered",
                               u"UnregisterCallback(1, 00070001) <SKR_SUCCESS>",
                               u"UnregisterCallback(1, 00070001) <SKR_SUCCESS> not registered"}) {
    const int at = IndexOf(lines, u"-- " + id + u"::" + line, 4);
    EXPECT_GT(at, previous) << testing::Narrow(line) << "\n" << Dump(lines);
    previous = at;
  }
}

TEST_F(PortTest, StackEventsReachRegisteredMembersWithTraces) {
  LogCapture capture;
  LocalConnection writer, listener, deaf, elsewhere;
  for (auto* c : {&writer, &listener, &deaf}) ASSERT_EQ(OpenName(*c, u"loop/dev1"), SKR_SUCCESS);
  ASSERT_EQ(OpenName(elsewhere, u"loop/dev2"), SKR_SUCCESS);
  listener.RegisterCallback(kLoopbackData);
  writer.RegisterCallback(kLoopbackData);
  elsewhere.RegisterCallback(kLoopbackData);
  ASSERT_EQ(Lock(writer), SKR_SUCCESS);

  ASSERT_EQ(WriteText(writer, "echo!"), SKR_SUCCESS);
  ASSERT_EQ(WriteText(writer, "4byt"), SKR_SUCCESS);  // exactly 4 bytes: traced as a value
  for (auto* c : {&writer, &listener}) {
    const auto received = c->TakeEvents();
    ASSERT_EQ(received.size(), 2u);
    EXPECT_EQ(received[0].event, kLoopbackData);
    EXPECT_EQ(Text(received[0].data), "echo!");
    EXPECT_EQ(Text(received[1].data), "4byt");
  }
  EXPECT_TRUE(deaf.TakeEvents().empty());
  EXPECT_TRUE(elsewhere.TakeEvents().empty());

  const std::vector<LogLine> lines = capture.Lines();
  const std::u16string id = TraceId(listener);
  EXPECT_GE(IndexOf(lines, u"** " + id + u"::Event(1, 00070001)", 4), 0) << Dump(lines);
  EXPECT_GE(IndexOf(lines, u"** " + id + u"::Event(1, 00070001, 74796234)", 4), 0) << Dump(lines);
  EXPECT_LT(IndexOfPrefix(lines, u"** " + TraceId(deaf)), 0) << Dump(lines);
}

TEST_F(PortTest, PortOnlyEventsNeverReachClientsAndLockOnlyEventsOnlyHolders) {
  LocalConnection holder, bystander, unregistered;
  for (auto* c : {&holder, &bystander, &unregistered}) ASSERT_EQ(OpenName(*c, u"plain/dev1"), SKR_SUCCESS);
  // Bit 28 marks an event for the port alone, bit 29 one for the connections holding the lock.
  const std::vector<uint32_t> ids{0x10000005u, SK_EVENT_LOCK_CHANGED, 0x30000005u, 0x00000005u, 0x20000007u};
  for (uint32_t id : ids) {
    holder.RegisterCallback(id);
    bystander.RegisterCallback(id);
  }
  ASSERT_EQ(Lock(holder), SKR_INVALID_PARAMETER);  // refused by the stack, granted all the same
  ASSERT_TRUE(holder.lock_granted());
  for (auto* c : {&holder, &bystander, &unregistered}) c->TakeEvents();
  for (uint32_t id : ids) EXPECT_EQ(Raise(holder, id), SKR_SUCCESS);
  EXPECT_EQ(EventIds(holder), (std::vector<uint32_t>{0x00000005u, 0x20000007u}));
  EXPECT_EQ(EventIds(bystander), std::vector<uint32_t>{0x00000005u});
  EXPECT_TRUE(EventIds(unregistered).empty());

  ASSERT_EQ(Lock(bystander), SKR_INVALID_PARAMETER);  // the refusing stack leaves the queue empty
  EXPECT_TRUE(bystander.lock_granted());
  bystander.TakeEvents();
  ASSERT_EQ(Raise(holder, 0x20000007u), SKR_SUCCESS);
  EXPECT_EQ(EventIds(bystander), std::vector<uint32_t>{0x20000007u});
}

// A device that comes online while its port opens raises its event before the port is published:
// the event waits and reaches the opener once the open is done, and a failed open drops it.
TEST_F(PortTest, EventsRaisedWhileThePortOpensReachTheOpener) {
  ASSERT_TRUE(SetNumberProperty(u"/testmodule/test_component/openEvent", 0x00000005u));
  LocalConnection opener, later;
  opener.RegisterCallback(0x00000005u);
  later.RegisterCallback(0x00000005u);
  ASSERT_EQ(OpenName(opener, u"plain/dev1"), SKR_SUCCESS);
  ASSERT_EQ(OpenName(later, u"plain/dev1"), SKR_SUCCESS);  // joins: the stack does not open again
  const auto received = opener.TakeEvents();
  ASSERT_EQ(received.size(), 1u);
  EXPECT_EQ(received[0].event, 0x00000005u);
  EXPECT_EQ(Text(received[0].data), "test_component");
  EXPECT_TRUE(later.TakeEvents().empty());

  ASSERT_TRUE(SetNumberProperty(u"/testmodule/test_component/openResult", SKR_SYSTEM_ERROR));
  LocalConnection failed;
  failed.RegisterCallback(0x00000005u);
  EXPECT_EQ(OpenName(failed, u"plain/dev2"), SKR_SYSTEM_ERROR);
  EXPECT_TRUE(failed.TakeEvents().empty());
}

TEST_F(PortTest, RegistrationsSurviveCloseAndEventsForAClosedPortAreDropped) {
  LocalConnection c;
  c.RegisterCallback(kLoopbackData);  // before any open
  ASSERT_EQ(OpenName(c, u"loop/dev1"), SKR_SUCCESS);
  const uint32_t port = c.port_number();
  ASSERT_EQ(c.Close(), SKR_SUCCESS);

  LogCapture capture;
  // The blob's reference passes to the sink, which must drop it (the leak check sees it).
  PortAccess::EventSink(port, kLoopbackData, ToSkBlob(BlobCopy("late", 4)));
  PortAccess::EventSink(port + 40, kLoopbackData, nullptr);
  EXPECT_TRUE(c.TakeEvents().empty());
  const std::vector<LogLine> lines = capture.Lines();
  EXPECT_LT(IndexOfPrefix(lines, u"** "), 0) << Dump(lines);

  ASSERT_EQ(OpenName(c, u"loop/dev2"), SKR_SUCCESS);
  ASSERT_EQ(Lock(c), SKR_SUCCESS);
  c.TakeEvents();
  ASSERT_EQ(WriteText(c, "still here"), SKR_SUCCESS);
  EXPECT_EQ(EventIds(c), std::vector<uint32_t>{kLoopbackData});
}

}  // namespace
}  // namespace orlenda
