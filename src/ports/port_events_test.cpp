// Event registration, delivery and its filters (bits 28 and 29), with the traces.
#include <algorithm>

#include "support/port_test_fixture.h"

namespace orlenda {
namespace {

using namespace orlenda::port_testing;  // NOLINT: the fixture helpers

std::vector<uint32_t> EventIds(LocalConnection& c) {
  std::vector<uint32_t> ids;
  for (const auto& e : c.TakeEvents()) ids.push_back(e.event);
  return ids;
}

TEST_F(PortTest, RegistrationCountsOnceAndStackEventsReachRegisteredMembersWithTraces) {
  LogCapture capture;
  LocalConnection writer, listener, deaf, elsewhere;
  listener.RegisterCallback(kLoopbackData);  // before any open
  for (auto* c : {&writer, &listener, &deaf}) ASSERT_EQ(OpenName(*c, u"loop/dev1"), SKR_SUCCESS);
  ASSERT_EQ(OpenName(elsewhere, u"loop/dev2"), SKR_SUCCESS);
  // deaf registers twice and unregisters twice: one unregister removes the double registration.
  EXPECT_EQ(deaf.RegisterCallback(kLoopbackData), SKR_SUCCESS);
  EXPECT_EQ(deaf.RegisterCallback(kLoopbackData), SKR_SUCCESS);
  EXPECT_EQ(deaf.UnregisterCallback(kLoopbackData), SKR_SUCCESS);
  EXPECT_EQ(deaf.UnregisterCallback(kLoopbackData), SKR_SUCCESS);
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

  // Registrations outlive the port. Events for a port no longer open are dropped, untraced, and
  // their blob's reference with them (the leak check sees it).
  for (auto* c : {&writer, &listener, &deaf}) ASSERT_EQ(c->Close(), SKR_SUCCESS);
  PortAccess::EventSink(1, kLoopbackData, ToSkBlob(BlobCopy("late", 4)));
  PortAccess::EventSink(41, kLoopbackData, nullptr);
  EXPECT_TRUE(listener.TakeEvents().empty());
  ASSERT_EQ(OpenName(listener, u"loop/dev3"), SKR_SUCCESS);
  ASSERT_EQ(Lock(listener), SKR_SUCCESS);
  listener.TakeEvents();
  ASSERT_EQ(WriteText(listener, "still here"), SKR_SUCCESS);
  EXPECT_EQ(EventIds(listener), std::vector<uint32_t>{kLoopbackData});

  const std::vector<LogLine> lines = capture.Lines();
  int previous = -1;  // in this order
  for (const char16_t* line : {u"RegisterCallback(1, 00070001) <SKR_SUCCESS>",
                               u"RegisterCallback(1, 00070001) <SKR_SUCCESS> already registered",
                               u"UnregisterCallback(1, 00070001) <SKR_SUCCESS>",
                               u"UnregisterCallback(1, 00070001) <SKR_SUCCESS> not registered"}) {
    const int at = IndexOf(lines, u"-- " + TraceId(deaf) + u"::" + line, 4);
    EXPECT_GT(at, previous) << testing::Narrow(line) << "\n" << Dump(lines);
    previous = at;
  }
  const std::u16string id = TraceId(listener);
  EXPECT_GE(IndexOf(lines, u"** " + id + u"::Event(1, 00070001)", 4), 0) << Dump(lines);
  EXPECT_GE(IndexOf(lines, u"** " + id + u"::Event(1, 00070001, 74796234)", 4), 0) << Dump(lines);
  EXPECT_LT(IndexOfPrefix(lines, u"** " + TraceId(deaf)), 0) << Dump(lines);
  EXPECT_TRUE(std::none_of(lines.begin(), lines.end(), [](const LogLine& l) {
    return l.text.find(u"6574616c") != std::u16string::npos || l.text.find(u"Event(41") != std::u16string::npos;
  })) << Dump(lines);
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
  for (auto* c : {&holder, &bystander, &unregistered}) c->TakeEvents();
  // The test component raises the event; its code has bits 30 and 29 set, so the raiser must hold
  // lock granted (which the plain stack gives to every lock request, refusing the stack's lock).
  BlobRef output;
  for (uint32_t id : ids) EXPECT_EQ(holder.Ioctl(kTestRaiseEvent, Dword(id), &output), SKR_SUCCESS);
  EXPECT_EQ(EventIds(holder), (std::vector<uint32_t>{0x00000005u, 0x20000007u}));
  EXPECT_EQ(EventIds(bystander), std::vector<uint32_t>{0x00000005u});
  EXPECT_TRUE(EventIds(unregistered).empty());

  ASSERT_EQ(Lock(bystander), SKR_INVALID_PARAMETER);  // the refusing stack leaves the queue empty
  bystander.TakeEvents();
  ASSERT_EQ(holder.Ioctl(kTestRaiseEvent, Dword(0x20000007u), &output), SKR_SUCCESS);
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
  EXPECT_EQ(Text(received[0].data), "test_component");
  EXPECT_TRUE(later.TakeEvents().empty());

  ASSERT_TRUE(SetNumberProperty(u"/testmodule/test_component/openResult", SKR_SYSTEM_ERROR));
  LocalConnection failed;
  failed.RegisterCallback(0x00000005u);
  EXPECT_EQ(OpenName(failed, u"plain/dev2"), SKR_SYSTEM_ERROR);
  EXPECT_TRUE(failed.TakeEvents().empty());

  // More than are held: the rest are dropped, and the trace says how many.
  ASSERT_TRUE(SetNumberProperty(u"/testmodule/test_component/openResult", SKR_SUCCESS));
  ASSERT_TRUE(SetNumberProperty(u"/testmodule/test_component/openEventCount", COpenPort::kMaxEarlyEvents + 44));
  LogCapture capture;
  LocalConnection flooded;
  flooded.RegisterCallback(0x00000005u);
  ASSERT_EQ(OpenName(flooded, u"plain/dev2"), SKR_SUCCESS);
  EXPECT_EQ(flooded.TakeEvents().size(), COpenPort::kMaxEarlyEvents);
  const std::vector<LogLine> lines = capture.Lines();
  const std::u16string dropped =
      u"-- COpenPort::Open(2): 44 events raised while the port opened were dropped (at most 256 are held)";
  EXPECT_GE(IndexOf(lines, dropped), 0) << Dump(lines);
}

}  // namespace
}  // namespace orlenda
