// The port lock: requests and their parameters, notices, keys, the hand-over, placeholders after the
// device's lock state moved, the exclusive-writer flag and a connection that vanishes.
#include <gtest/gtest.h>

#include "ports/port_test_fixture.h"

namespace orlenda {
namespace {

using namespace orlenda::port_testing;  // NOLINT: the fixture helpers

using Values = std::vector<uint32_t>;

// Connections on loop/dev1 that listen to the lock notices.
class LockTest : public PortTest {
 protected:
  void Open(LocalConnection& c, const char16_t* name = u"loop/dev1") {
    ASSERT_EQ(OpenName(c, name), SKR_SUCCESS);
    c.RegisterCallback(SK_EVENT_LOCK);
    c.RegisterCallback(SK_EVENT_EXCLUSIVE);
    c.RegisterCallback(SK_EVENT_NOTIFY);
  }
  void Open(std::initializer_list<LocalConnection*> connections) {
    for (LocalConnection* c : connections) Open(*c);
  }
  // The lock state the stack reports.
  static uint32_t StackLockState(LocalConnection& c) {
    BlobRef state;
    uint32_t value = 99;
    EXPECT_EQ(c.Ioctl(SK_LOCK_STATE, BlobRef(), &state), SKR_SUCCESS);
    EXPECT_TRUE(DwordBlobRead(state.get(), &value));
    return value;
  }
};

TEST_F(LockTest, ParametersAreCheckedBeforeAnythingHappens) {
  LocalConnection c;
  EXPECT_EQ(Lock(c), SKR_INVALID_HANDLE);  // no port
  Open(c);
  BlobRef output;
  EXPECT_EQ(c.Ioctl(SK_PORT_LOCK, Bytes({"\x01\0\0", 3}), &output), SKR_INVALID_SIZE);
  EXPECT_EQ(c.Ioctl(SK_PORT_LOCK, BlobRef(), &output), SKR_INVALID_SIZE);
  EXPECT_EQ(Lock(c, 3), SKR_INVALID_PARAMETER);
  EXPECT_EQ(Lock(c, 0), SKR_INVALID_PARAMETER);
  EXPECT_EQ(c.Ioctl(SK_PORT_EXCLUSIVE, Bytes({"\x01\0\0", 3}), &output), SKR_INVALID_SIZE);
  EXPECT_FALSE(c.lock_granted());
  EXPECT_FALSE(PortTable::IsAnyPortLocked());
  EXPECT_TRUE(DwordEvents(c, SK_EVENT_LOCK).empty());
}

TEST_F(LockTest, AdmissionAndHandOverTellEveryMemberInArrivalOrder) {
  LocalConnection a, b, c, elsewhere;
  Open({&a, &b, &c});
  Open(elsewhere, u"loop/dev2");
  // A notice needs no lock and reaches the other members of the port only.
  BlobRef output;
  EXPECT_EQ(a.Ioctl(SK_PORT_NOTIFY, Bytes("hello"), &output), SKR_SUCCESS);
  const auto notes = b.TakeEvents();
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_TRUE(notes[0].event == SK_EVENT_NOTIFY && Text(notes[0].data) == "hello");
  EXPECT_TRUE(a.TakeEvents().empty() && elsewhere.TakeEvents().empty());
  LockStateChangedEvent().Wait(0);  // start from unsignalled

  EXPECT_FALSE(PortTable::IsAnyPortLocked());
  ASSERT_EQ(Lock(a), SKR_SUCCESS);
  EXPECT_TRUE(a.lock_granted());
  EXPECT_TRUE(PortTable::IsAnyPortLocked());
  EXPECT_TRUE(LockStateChangedEvent().Wait(0));
  EXPECT_EQ(DwordEvents(a, SK_EVENT_LOCK), Values{1});
  EXPECT_EQ(DwordEvents(b, SK_EVENT_LOCK), Values{2});
  EXPECT_TRUE(DwordEvents(elsewhere, SK_EVENT_LOCK).empty());
  EXPECT_EQ(StackLockState(b), 1u);  // the stack was locked for the port

  EXPECT_EQ(Lock(b), SKR_LOCK_PENDING);
  EXPECT_EQ(Lock(c), SKR_LOCK_PENDING);
  for (auto* x : {&a, &b, &c}) x->TakeEvents();
  EXPECT_EQ(Lock(a, 2), SKR_SUCCESS);
  EXPECT_FALSE(c.lock_granted());
  EXPECT_EQ(DwordEvents(b, SK_EVENT_LOCK), Values{1});
  EXPECT_EQ(DwordEvents(c, SK_EVENT_LOCK), Values{2});
  EXPECT_EQ(DwordEvents(a, SK_EVENT_LOCK), Values{2});
  EXPECT_EQ(WriteText(a, "late"), SKR_NOT_LOCKED);
  EXPECT_EQ(WriteText(b, "now"), SKR_SUCCESS);

  // A waiter that gives up is simply dropped; unlocking twice is harmless.
  EXPECT_EQ(Lock(c, 2), SKR_SUCCESS);
  EXPECT_EQ(Lock(c, 2), SKR_SUCCESS);
  LockStateChangedEvent().Wait(0);
  EXPECT_EQ(Lock(b, 2), SKR_SUCCESS);
  EXPECT_TRUE(LockStateChangedEvent().Wait(0));
  EXPECT_FALSE(b.lock_granted() || c.lock_granted());
  EXPECT_FALSE(PortTable::IsAnyPortLocked());

  // A holder that closes (as one that vanishes does) passes the lock on without a request; the
  // last one to leave unlocks the port, and that is told as well.
  ASSERT_EQ(Lock(c), SKR_SUCCESS);
  ASSERT_EQ(Lock(b), SKR_LOCK_PENDING);
  b.TakeEvents();
  ASSERT_EQ(c.Close(), SKR_SUCCESS);
  EXPECT_EQ(DwordEvents(b, SK_EVENT_LOCK), Values{1});
  EXPECT_EQ(WriteText(b, "mine"), SKR_SUCCESS);
  EXPECT_TRUE(PortTable::IsAnyPortLocked());
  LockStateChangedEvent().Wait(0);
  ASSERT_EQ(b.Close(), SKR_SUCCESS);
  EXPECT_TRUE(LockStateChangedEvent().Wait(0));
  EXPECT_FALSE(PortTable::IsAnyPortLocked());
}

TEST_F(LockTest, KeyedRequestsShareTheLockWithOtherKeysOnly) {
  LocalConnection a, b, a2, plain;
  Open(a, u"loop/dev1?key=a");
  Open(b, u"loop/dev1?b");
  Open(a2, u"loop/dev1?key=a");
  Open(plain);
  ASSERT_EQ(Lock(a), SKR_SUCCESS);  // an empty queue admits whatever the key
  a.TakeEvents();
  b.TakeEvents();
  EXPECT_EQ(Lock(b), SKR_SUCCESS);
  EXPECT_EQ(DwordEvents(b, SK_EVENT_LOCK), Values{1});
  EXPECT_TRUE(DwordEvents(a, SK_EVENT_LOCK).empty());  // a grant beside the holders is told alone
  EXPECT_EQ(Lock(a2), SKR_LOCK_PENDING);
  EXPECT_EQ(Lock(plain), SKR_LOCK_PENDING);
  EXPECT_FALSE(plain.lock_granted());
  EXPECT_EQ(WriteText(b, "b"), SKR_SUCCESS);
  EXPECT_EQ(WriteText(a2, "a2"), SKR_NOT_LOCKED);

  // a leaves: the front is b, already a holder; a2 now shares beside b (key a no longer ahead).
  DwordEvents(a2, SK_EVENT_LOCK);
  EXPECT_EQ(Lock(a, 2), SKR_SUCCESS);
  EXPECT_TRUE(a2.lock_granted());
  EXPECT_EQ(DwordEvents(a2, SK_EVENT_LOCK), Values{1});
  EXPECT_FALSE(plain.lock_granted());

  // Both keyed holders leave: the keyless waiter is admitted with the stack's lock.
  DwordEvents(plain, SK_EVENT_LOCK);
  EXPECT_EQ(b.Close(), SKR_SUCCESS);
  EXPECT_FALSE(plain.lock_granted());
  EXPECT_EQ(Lock(a2, 2), SKR_SUCCESS);
  EXPECT_TRUE(plain.lock_granted());
  EXPECT_EQ(DwordEvents(plain, SK_EVENT_LOCK), Values{1});
  EXPECT_EQ(DwordEvents(a2, SK_EVENT_LOCK), Values{2});
}

TEST_F(LockTest, DeviceHeldElsewhereLeavesAPlaceholderUntilItIsFreeAgain) {
  LocalConnection a, b, c;
  Open({&a, &b, &c});
  ASSERT_EQ(Lock(a), SKR_SUCCESS);
  const uint32_t port = a.port_number();

  // State 2: someone outside took the device. a keeps lock granted, but the port no longer
  // counts as locked, and a new request queues behind the placeholder.
  ASSERT_EQ(SetDeviceLockState(port, 2), SKR_SUCCESS);
  EXPECT_FALSE(PortTable::IsAnyPortLocked());
  EXPECT_EQ(Lock(b), SKR_LOCK_PENDING);
  EXPECT_FALSE(PortTable::IsAnyPortLocked());
  a.TakeEvents();
  b.TakeEvents();

  // State 3: free again. The stack is locked again and the queue is told who holds it.
  ASSERT_EQ(SetDeviceLockState(port, 3), SKR_SUCCESS);
  EXPECT_TRUE(PortTable::IsAnyPortLocked());
  EXPECT_EQ(DwordEvents(a, SK_EVENT_LOCK), Values{1});
  EXPECT_EQ(DwordEvents(b, SK_EVENT_LOCK), Values{2});
  EXPECT_EQ(StackLockState(a), 1u);
  // Any other state changes nothing.
  ASSERT_EQ(SetDeviceLockState(port, 7), SKR_SUCCESS);
  EXPECT_TRUE(PortTable::IsAnyPortLocked());

  // The holder leaves while the device is held elsewhere: the hand-over waits for the device.
  ASSERT_EQ(SetDeviceLockState(port, 2), SKR_SUCCESS);
  EXPECT_EQ(Lock(a, 2), SKR_SUCCESS);
  EXPECT_FALSE(b.lock_granted());
  EXPECT_EQ(WriteText(b, "too early"), SKR_NOT_LOCKED);
  b.TakeEvents();
  ASSERT_EQ(SetDeviceLockState(port, 3), SKR_SUCCESS);
  EXPECT_EQ(DwordEvents(b, SK_EVENT_LOCK), Values{1});
  EXPECT_EQ(WriteText(b, "now"), SKR_SUCCESS);
  EXPECT_TRUE(PortTable::IsAnyPortLocked());

  // With the placeholder alone in the queue, a request is admitted at once, behind it.
  ASSERT_EQ(SetDeviceLockState(port, 2), SKR_SUCCESS);
  ASSERT_EQ(Lock(b, 2), SKR_SUCCESS);
  EXPECT_EQ(Lock(c), SKR_SUCCESS);
  EXPECT_TRUE(c.lock_granted());
  EXPECT_FALSE(PortTable::IsAnyPortLocked());
  c.TakeEvents();
  ASSERT_EQ(SetDeviceLockState(port, 3), SKR_SUCCESS);
  EXPECT_TRUE(PortTable::IsAnyPortLocked());
  EXPECT_EQ(DwordEvents(c, SK_EVENT_LOCK), Values{1});

  // An empty queue ignores the report: no placeholder is left for the next request to queue behind.
  EXPECT_EQ(Lock(c, 2), SKR_SUCCESS);
  ASSERT_EQ(SetDeviceLockState(port, 2), SKR_SUCCESS);
  EXPECT_FALSE(PortTable::IsAnyPortLocked());
  EXPECT_EQ(Lock(a), SKR_SUCCESS);
  EXPECT_TRUE(PortTable::IsAnyPortLocked());
}

TEST_F(LockTest, ExclusiveWriterIsTakenRefusedGivenUpAndReleasedByClose) {
  LocalConnection a, b, watcher;
  Open(a, u"loop/dev1?key=a");
  Open(b, u"loop/dev1?key=b");
  Open(watcher);
  BlobRef output;
  EXPECT_EQ(a.Ioctl(SK_PORT_EXCLUSIVE, Dword(1), &output), SKR_NOT_LOCKED);
  ASSERT_EQ(Lock(a), SKR_SUCCESS);
  ASSERT_EQ(Lock(b), SKR_SUCCESS);
  for (auto* x : {&a, &b, &watcher}) x->TakeEvents();

  EXPECT_EQ(a.Ioctl(SK_PORT_EXCLUSIVE, Dword(1), &output), SKR_SUCCESS);
  // Only the other members with lock granted hear it (bit 29).
  EXPECT_EQ(DwordEvents(b, SK_EVENT_EXCLUSIVE), Values{1});
  EXPECT_TRUE(DwordEvents(watcher, SK_EVENT_EXCLUSIVE).empty());
  EXPECT_TRUE(DwordEvents(a, SK_EVENT_EXCLUSIVE).empty());
  EXPECT_EQ(a.Ioctl(SK_PORT_EXCLUSIVE, Dword(5), &output), SKR_SUCCESS);  // held already: quiet
  EXPECT_TRUE(DwordEvents(b, SK_EVENT_EXCLUSIVE).empty());

  EXPECT_EQ(b.Ioctl(SK_PORT_EXCLUSIVE, Dword(1), &output), SKR_LOCKED_BY_OTHER);
  EXPECT_EQ(b.Ioctl(SK_PORT_EXCLUSIVE, Dword(0), &output), SKR_LOCKED_BY_OTHER);
  EXPECT_EQ(WriteText(b, "blocked"), SKR_LOCKED_BY_OTHER);
  EXPECT_EQ(WriteText(a, "writer"), SKR_SUCCESS);

  EXPECT_EQ(a.Ioctl(SK_PORT_EXCLUSIVE, Dword(0), &output), SKR_SUCCESS);
  EXPECT_EQ(DwordEvents(b, SK_EVENT_EXCLUSIVE), Values{0});
  EXPECT_EQ(WriteText(b, "free"), SKR_SUCCESS);

  EXPECT_EQ(b.Ioctl(SK_PORT_EXCLUSIVE, Dword(1), &output), SKR_SUCCESS);
  EXPECT_EQ(WriteText(a, "blocked"), SKR_LOCKED_BY_OTHER);
  a.TakeEvents();
  EXPECT_EQ(b.Close(), SKR_SUCCESS);  // gives the flag up with the lock
  EXPECT_EQ(DwordEvents(a, SK_EVENT_EXCLUSIVE), Values{0});
  EXPECT_EQ(WriteText(a, "free again"), SKR_SUCCESS);
  EXPECT_EQ(a.Ioctl(SK_PORT_EXCLUSIVE, Dword(1), &output), SKR_SUCCESS);
}

}  // namespace
}  // namespace orlenda
