// The port lock: requests and their parameters, notices, keys, the hand-over, placeholders after the
// device's lock state moved, the exclusive-writer flag and a connection that vanishes.
#include "support/port_test_fixture.h"

namespace orlenda {
namespace {

using namespace orlenda::port_testing;  // NOLINT: the fixture helpers

// A member that writes the moment it is told it holds the lock, from inside the notice itself.
class Member : public LocalConnection {
 public:
  void PushEvent(uint32_t event, BlobRef data) override {
    uint32_t value = 0;
    if (event == SK_EVENT_LOCK && DwordBlobRead(data.get(), &value) && value == 1) {
      EXPECT_EQ(WriteText(*this, "now"), SKR_SUCCESS) << "written from inside the notice that it holds the lock";
    }
    LocalConnection::PushEvent(event, std::move(data));
  }
};

// Members of loop/dev1 that listen to the lock notices, and the steps they take in turn.
class LockTest : public PortTest {
 protected:
  void Open(LocalConnection& c, const char16_t* name = u"loop/dev1") {
    ASSERT_EQ(OpenName(c, name), SKR_SUCCESS);
    c.RegisterCallback(SK_EVENT_LOCK);
    c.RegisterCallback(SK_EVENT_EXCLUSIVE);
    c.RegisterCallback(SK_EVENT_NOTIFY);
  }

  // kDevice: the device's lock state moves to the step's value as if someone outside the service
  // took or gave back the device (the module raises SK_EVENT_LOCK_CHANGED to the port). kGranted
  // answers 1 for lock granted; kStackState answers the lock state the stack reports.
  enum Act { kLock, kUnlock, kWrite, kClose, kExclusive, kDevice, kGranted, kStackState };
  struct Step {
    int who;           // index of the acting member
    Act act;
    uint32_t value;    // kExclusive and kDevice
    uint32_t result;
    const char* told;  // per member, the value of the one `event` it got in this step, '.' for none
    bool locked;       // whether the port counts as locked afterwards
  };

  static uint32_t Do(LocalConnection& c, const Step& step, uint32_t port) {
    BlobRef output;
    uint32_t state = 99;
    switch (step.act) {
      case kLock: return Lock(c);
      case kUnlock: return Lock(c, 2);
      case kWrite: return WriteText(c, "x");
      case kClose: return c.Close();
      case kExclusive: return c.Ioctl(SK_PORT_EXCLUSIVE, Dword(step.value), &output);
      case kDevice: return ModuleIoctl(u"loopback", port, kLoopbackSetLockState, step.value);
      case kGranted: return c.lock_granted() ? 1 : 0;
      case kStackState:
        c.Ioctl(SK_LOCK_STATE, BlobRef(), &output);
        return DwordBlobRead(output.get(), &state) ? state : 99;
    }
    return 99;
  }

  // Plays the steps on the port of the first member. After each, every member's `event` notices
  // are compared, and the system is told that a port's lock state changed exactly when it did.
  static void Play(const std::vector<LocalConnection*>& members, uint32_t event, const std::vector<Step>& steps) {
    const uint32_t port = members[0]->port_number();
    bool locked = PortTable::IsAnyPortLocked();
    LockStateChangedEvent().Wait(0);  // start from unsignalled
    for (std::size_t i = 0; i < steps.size(); ++i) {
      const Step& step = steps[i];
      SCOPED_TRACE(::testing::Message() << "step " << i);
      EXPECT_EQ(Do(*members[step.who], step, port), step.result);
      for (std::size_t m = 0; m < members.size(); ++m) {
        const char told = step.told[m];
        EXPECT_EQ(DwordEvents(*members[m], event), told == '.' ? Values{} : Values{uint32_t(told - '0')}) << m;
      }
      EXPECT_EQ(PortTable::IsAnyPortLocked(), step.locked);
      EXPECT_EQ(LockStateChangedEvent().Wait(0), step.locked != locked);
      locked = step.locked;
    }
  }
  using Values = std::vector<uint32_t>;
};

TEST_F(LockTest, ParametersAreCheckedBeforeAnythingHappens) {
  LocalConnection c;
  EXPECT_EQ(Lock(c), SKR_INVALID_HANDLE);  // no port
  Open(c);
  BlobRef output;
  EXPECT_EQ(c.Ioctl(SK_PORT_LOCK, Bytes({"\x01\0\0", 3}), &output), SKR_INVALID_SIZE);
  EXPECT_EQ(Lock(c, 3), SKR_INVALID_PARAMETER);
  EXPECT_EQ(Lock(c, 0), SKR_INVALID_PARAMETER);
  EXPECT_EQ(c.Ioctl(SK_PORT_EXCLUSIVE, Bytes({"\x01\0\0", 3}), &output), SKR_INVALID_SIZE);
  EXPECT_FALSE(c.lock_granted());
  EXPECT_FALSE(PortTable::IsAnyPortLocked());
  EXPECT_TRUE(DwordEvents(c, SK_EVENT_LOCK).empty());
}

TEST_F(LockTest, AdmissionAndHandOverTellEveryMemberInArrivalOrder) {
  Member a, b, c, elsewhere;
  for (LocalConnection* m : {&a, &b, &c}) Open(*m);
  Open(elsewhere, u"loop/dev2");
  // A notice needs no lock and reaches the other members of the port only.
  BlobRef output;
  EXPECT_EQ(a.Ioctl(SK_PORT_NOTIFY, Bytes("hello"), &output), SKR_SUCCESS);
  const auto notes = b.TakeEvents();
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_TRUE(notes[0].event == SK_EVENT_NOTIFY && Text(notes[0].data) == "hello");
  EXPECT_TRUE(a.TakeEvents().empty() && elsewhere.TakeEvents().empty());

  enum { A, B, C };
  Play({&a, &b, &c, &elsewhere}, SK_EVENT_LOCK,
       {{A, kLock, 0, SKR_SUCCESS, "122.", true},
        {B, kStackState, 0, 1, "....", true},  // the stack was locked for the port
        {B, kLock, 0, SKR_LOCK_PENDING, "....", true},
        {C, kLock, 0, SKR_LOCK_PENDING, "....", true},
        {A, kUnlock, 0, SKR_SUCCESS, "212.", true},
        {C, kGranted, 0, 0, "....", true},
        {A, kWrite, 0, SKR_NOT_LOCKED, "....", true},
        {B, kWrite, 0, SKR_SUCCESS, "....", true},
        // A waiter that gives up is simply dropped; unlocking twice is harmless.
        {C, kUnlock, 0, SKR_SUCCESS, "....", true},
        {C, kUnlock, 0, SKR_SUCCESS, "....", true},
        {B, kUnlock, 0, SKR_SUCCESS, "....", false},
        // A holder that closes (as one that vanishes does) passes the lock on without a request;
        // the last one to leave unlocks the port.
        {C, kLock, 0, SKR_SUCCESS, "221.", true},
        {B, kLock, 0, SKR_LOCK_PENDING, "....", true},
        {C, kClose, 0, SKR_SUCCESS, "21..", true},
        {B, kWrite, 0, SKR_SUCCESS, "....", true},
        {B, kClose, 0, SKR_SUCCESS, "....", false}});
}

TEST_F(LockTest, KeyedRequestsShareTheLockWithOtherKeysOnly) {
  Member a, b, a2, plain;
  Open(a, u"loop/dev1?key=a");
  Open(b, u"loop/dev1?b");
  Open(a2, u"loop/dev1?key=a");
  Open(plain);
  enum { A, B, A2, P };
  Play({&a, &b, &a2, &plain}, SK_EVENT_LOCK,
       {{A, kLock, 0, SKR_SUCCESS, "1222", true},        // an empty queue admits whatever the key
        {B, kLock, 0, SKR_SUCCESS, ".1..", true},        // a grant beside the holders is told alone
        {A2, kLock, 0, SKR_LOCK_PENDING, "....", true},  // key a is ahead
        {P, kLock, 0, SKR_LOCK_PENDING, "....", true},
        {B, kWrite, 0, SKR_SUCCESS, "....", true},
        {A2, kWrite, 0, SKR_NOT_LOCKED, "....", true},
        // a leaves: the front is b, already a holder; a2 now shares beside b.
        {A, kUnlock, 0, SKR_SUCCESS, "..1.", true},
        // Both keyed holders leave: the keyless waiter is admitted with the stack's lock (not before:
        // lock granted, once given, stays until an unlock).
        {B, kClose, 0, SKR_SUCCESS, "....", true},
        {P, kGranted, 0, 0, "....", true},
        {A2, kUnlock, 0, SKR_SUCCESS, "2.21", true},
        {P, kGranted, 0, 1, "....", true}});
}

TEST_F(LockTest, DeviceHeldElsewhereLeavesAPlaceholderUntilItIsFreeAgain) {
  Member a, b, c;
  for (LocalConnection* m : {&a, &b, &c}) Open(*m);
  enum { A, B, C };
  Play({&a, &b, &c}, SK_EVENT_LOCK,
       {{A, kLock, 0, SKR_SUCCESS, "122", true},
        // State 2: someone outside took the device. a keeps lock granted, but the port no longer
        // counts as locked, and a new request queues behind the placeholder.
        {A, kDevice, 2, SKR_SUCCESS, "...", false},
        {A, kGranted, 0, 1, "...", false},
        {B, kLock, 0, SKR_LOCK_PENDING, "...", false},
        // State 3: free again. The stack is locked again and the queue is told who holds it.
        {A, kDevice, 3, SKR_SUCCESS, "12.", true},
        {A, kStackState, 0, 1, "...", true},
        {A, kDevice, 7, SKR_SUCCESS, "...", true},  // any other state changes nothing
        // The holder leaves while the device is held elsewhere: the hand-over waits for the device.
        {A, kDevice, 2, SKR_SUCCESS, "...", false},
        {A, kUnlock, 0, SKR_SUCCESS, "...", false},
        {B, kWrite, 0, SKR_NOT_LOCKED, "...", false},
        {A, kDevice, 3, SKR_SUCCESS, ".1.", true},
        {B, kWrite, 0, SKR_SUCCESS, "...", true},
        // With the placeholder alone in the queue, a request is admitted at once, behind it.
        {A, kDevice, 2, SKR_SUCCESS, "...", false},
        {B, kUnlock, 0, SKR_SUCCESS, "...", false},
        {C, kLock, 0, SKR_SUCCESS, "221", false},
        {A, kDevice, 3, SKR_SUCCESS, "..1", true},
        // An empty queue ignores the report: no placeholder is left for the next request to queue
        // behind.
        {C, kUnlock, 0, SKR_SUCCESS, "...", false},
        {A, kDevice, 2, SKR_SUCCESS, "...", false},
        {A, kLock, 0, SKR_SUCCESS, "122", true}});
}

TEST_F(LockTest, ExclusiveWriterIsTakenRefusedGivenUpAndReleasedByClose) {
  Member a, b, watcher;
  Open(a, u"loop/dev1?key=a");
  Open(b, u"loop/dev1?key=b");
  Open(watcher);
  enum { A, B };
  Play({&a, &b, &watcher}, SK_EVENT_EXCLUSIVE,
       {{A, kExclusive, 1, SKR_NOT_LOCKED, "...", false},
        {A, kLock, 0, SKR_SUCCESS, "...", true},
        {B, kLock, 0, SKR_SUCCESS, "...", true},
        {A, kExclusive, 1, SKR_SUCCESS, ".1.", true},  // only the other members with lock granted hear it
        {A, kExclusive, 5, SKR_SUCCESS, "...", true},  // held already: quiet
        {B, kExclusive, 1, SKR_LOCKED_BY_OTHER, "...", true},
        {B, kExclusive, 0, SKR_LOCKED_BY_OTHER, "...", true},
        {B, kWrite, 0, SKR_LOCKED_BY_OTHER, "...", true},
        {A, kWrite, 0, SKR_SUCCESS, "...", true},
        {A, kExclusive, 0, SKR_SUCCESS, ".0.", true},
        {B, kWrite, 0, SKR_SUCCESS, "...", true},
        {B, kExclusive, 1, SKR_SUCCESS, "1..", true},
        {A, kWrite, 0, SKR_LOCKED_BY_OTHER, "...", true},
        {B, kClose, 0, SKR_SUCCESS, "0..", true},  // gives the flag up with the lock
        {A, kWrite, 0, SKR_SUCCESS, "...", true},
        {A, kExclusive, 1, SKR_SUCCESS, "...", true}});
}

}  // namespace
}  // namespace orlenda
