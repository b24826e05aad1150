// COpenPort: one open port name, shared by every connection that opened that name, and with it one
// instance of the port's component stack.
//
// The rule that shapes everything below: a component call may take minutes (a printer out of
// paper holds a write), and a component may call back into the service (the host table, the
// port enumeration included) from inside any of its operations, its event path and its own
// threads. So no lock and no wait of this layer may depend on a component call of another port,
// and the only waits for component calls on the same port are those of the port's own lock
// protocol and of the last Close before it closes the stack.
//
// Fields and what guards them:
//  - members: an immutable, reference-counted list, replaced under the members lock whenever a
//    member joins or leaves. A walk of the members (events, lock and exclusive-writer notices)
//    takes the current list and raises busy, both under the members lock, and then reads its own
//    list without any lock. Joining never waits: the walks in progress keep their own lists. A
//    member that leaves is taken out at once; its Close then waits (polling every 10 ms, holding
//    nothing) until the walks that may still hold it are over. Those are counted in two halves,
//    switched by every removal, so that walks that start after the removal (and cannot see the
//    leaver) never prolong the wait. A walk skips a member that left the port on the walk's own
//    thread meanwhile (the leaver does not wait for its own thread's walk).
//  - calls: the number of component calls in progress for members (Write, routed Ioctl, the lock
//    protocol's stack requests). It is raised before the membership check and lowered after the
//    call returns, so that the Close of the last member, which takes the port out of the table
//    and then waits for calls to fall to 0 (calls of its own thread aside) before the stack's
//    Close, never overlaps a call with the stack's Close and never lets a number be reused while
//    a call for it is still inside the stack.
//  - lock queue and exclusive writer: the lock-queue lock. The lock protocol (admission, hand-over,
//    the exclusive-writer step, the lock-state change, 0x50010005) calls the stack under it, so
//    lock requests of one port are served one at a time; writes and other controls never take it,
//    except the write access check of a member with an access key, which reads the exclusive
//    writer. `locked` mirrors "the queue's first entry is a connection" for the locked-port query,
//    which must not wait for this lock.
//  - name, number, stack entry points: written while the port is opened, before it is published
//    (`opening` cleared), and read-only afterwards.
//  - early events: the events the stack raises while it opens (a device that comes online at
//    once, on the module's own thread), under the early-events lock. They wait there, in order,
//    until the opener has published the port, and then go to the members; events raised while
//    they go out join the end of the line, so the order the stack raised them in holds.
//  - suspended: a manual-reset event, set while the system is suspended.
//
// Lifetime: the port is reference counted. The port table holds one reference from the port's
// insertion to the Close of its last member; every lookup hands out one more (PortRef), so a port
// found by a request or an event sink stays allocated until that user lets go, whatever a
// concurrent Close does. The stack's Close is called once, by the Close that removes the last
// member; the memory goes with the last reference.
//
// Connection pointers: a connection leaves the members and the lock queue in its own Close before
// it goes away (slot 2), and its transport keeps it alive until its own requests are over. A walk
// only meets connections that are still members or whose Close is waiting for that walk. Lock-queue
// entries are read and dereferenced only under the lock-queue lock, and a member's lock requests
// check its membership under that lock, so a Close (which removes the member, then its entries,
// under that lock) never leaves an entry behind.
//
// Lock order (whole port layer): a connection's open lock, the port-table lock, a port's lock-queue
// lock, a port's members lock; the lookup lock, the removal lock, the early-events lock and a
// connection's state lock are leaves. The port-table lock is never held while a component is called or while anything waits
// for one: a new port's stack is opened with the port reserved in the table but the lock left.
// Busy is not a lock, and a walk makes no component call. The configuration lock is never held
// while any of these is taken.
#pragma once

#include <atomic>
#include <cstdint>
#include <list>

#include "common/blob.h"
#include "common/heap.h"
#include "common/wide_string.h"
#include "platform/sync.h"
#include "skein/component.h"

namespace orlenda {

class CSKConnection;

// The members of a port at one moment, in address order; shared by the walks that read it.
class MemberList {
 public:
  // A list of `items` plus `added` (when not null) minus `removed` (when not null). Null when
  // memory is short.
  static MemberList* Make(const MemberList* from, CSKConnection* added, CSKConnection* removed);
  void AddRef() { references_.fetch_add(1, std::memory_order_relaxed); }
  void Release();
  bool Contains(const CSKConnection* connection) const;
  const HeapVector<CSKConnection*>& items() const { return items_; }

 private:
  std::atomic<long> references_{1};
  HeapVector<CSKConnection*> items_;
};

class COpenPort {
 public:
  using LockQueue = std::list<CSKConnection*, HeapAllocator<CSKConnection*>>;

  explicit COpenPort(uint32_t number);
  ~COpenPort();
  COpenPort(const COpenPort&) = delete;
  COpenPort& operator=(const COpenPort&) = delete;

  // References. The port is destroyed and freed with the last Release.
  void AddRef() { references_.fetch_add(1, std::memory_order_relaxed); }
  void Release();

  uint32_t number() const { return number_; }
  const WString& name() const { return name_; }
  const SkComponentTable& stack() const { return stack_; }

  // Members. AddMember fails (false) when present or when memory is short, RemoveMember when
  // absent; RemoveMember returns once no walk of another thread can still meet the connection.
  bool AddMember(CSKConnection* connection);
  bool RemoveMember(CSKConnection* connection);
  bool IsMember(CSKConnection* connection) const;
  bool HasMembers() const;

  // Calls `tell(member)` for every member (but `except`), as a walk: members neither join nor
  // leave under it as far as it can tell.
  template <class Tell>
  void ForEachMember(CSKConnection* except, Tell tell);

  // Events raised while the port opens. HoldEarlyEvent keeps the event for later (true) until the
  // held events have all gone out; past kMaxEarlyEvents it drops it (also true). TakeEarlyEvents
  // moves the held events to `batch` and adds the number dropped to `*dropped`; when there are
  // none it ends the holding and returns false.
  struct EarlyEvent {
    uint32_t event;
    BlobRef data;
  };
  static constexpr std::size_t kMaxEarlyEvents = 256;
  bool HoldEarlyEvent(uint32_t event, const BlobRef& data);
  bool TakeEarlyEvents(HeapVector<EarlyEvent>* batch, uint32_t* dropped);

  bool suspended() const { return suspended_.Wait(0); }
  void SetSuspended(bool on) { on ? suspended_.Set() : suspended_.Reset(); }

  // The stack's Write and Ioctl with the port's number. Each hands the callee a reference of its
  // own on the input; a missing entry answers SKR_INVALID_HANDLE. The stack always gets an output
  // slot; a null `output` drops what the stack hands back. The caller counts the call (CallScope).
  uint32_t StackWrite(const BlobRef& data, uint32_t* written) const;
  uint32_t StackIoctl(uint32_t code, const BlobRef& input, BlobRef* output) const;
  // Ioctl with a DWORD parameter; the output, if any, is dropped.
  uint32_t StackIoctlDword(uint32_t code, uint32_t value) const;

  // Waits until no component call of another thread is in progress for this port.
  void WaitForCalls() const;

  platform::CriticalSection& queue_lock() { return queue_lock_; }
  // Under queue_lock().
  LockQueue& queue() { return queue_; }
  CSKConnection*& exclusive_writer() { return exclusive_writer_; }
  // Under queue_lock(), after every change of the queue; true when the locked state changed.
  bool PublishQueueState() {
    const bool now = !queue_.empty() && queue_.front() != nullptr;
    return locked_.exchange(now, std::memory_order_acq_rel) != now;
  }
  // Whether the queue's first entry is a connection; no lock needed.
  bool locked() const { return locked_.load(std::memory_order_acquire); }

  // Number of COpenPort objects alive in the process (a test hook for leak checks).
  static long LiveCount() { return live_.load(std::memory_order_acquire); }

 private:
  friend class PortTable;  // fills name and stack while opening
  friend class CallScope;
  friend class WalkScope;

  std::atomic<long> references_{1};
  const uint32_t number_;
  WString name_;
  SkComponentTable stack_{};
  // Set from the reservation in the table until the stack's Open returned; `opener_` is the thread
  // that opens it, `opened_` is set when it is done.
  std::atomic<bool> opening_{false};
  uint32_t opener_ = 0;
  platform::Event opened_{platform::ResetMode::kManual, false};
  mutable platform::Event suspended_{platform::ResetMode::kManual, false};

  platform::CriticalSection early_lock_;
  HeapVector<EarlyEvent> early_;  // under early_lock_
  bool holding_early_ = true;     // under early_lock_
  uint32_t early_dropped_ = 0;    // under early_lock_

  mutable platform::CriticalSection members_lock_;
  MemberList* members_ = nullptr;        // under members_lock_; never null after construction
  uint32_t epoch_ = 0;                   // under members_lock_; its low bit picks the walk count
  std::atomic<int32_t> walks_[2] = {};   // walks in progress, by the epoch they started in
  std::atomic<uint32_t> changes_{0};     // bumped by every removal
  platform::CriticalSection removal_lock_;  // one removal at a time

  mutable std::atomic<int32_t> calls_{0};

  platform::CriticalSection queue_lock_;
  LockQueue queue_;
  CSKConnection* exclusive_writer_ = nullptr;
  std::atomic<bool> locked_{false};

  static std::atomic<long> live_;
};

// A counted reference to an open port, as handed out by the lookups.
class PortRef {
 public:
  PortRef() = default;
  // Takes over a reference the caller holds.
  static PortRef Adopt(COpenPort* port) { PortRef r; r.port_ = port; return r; }
  PortRef(PortRef&& other) noexcept : port_(other.port_) { other.port_ = nullptr; }
  PortRef& operator=(PortRef&& other) noexcept {
    if (this != &other) { Reset(); port_ = other.port_; other.port_ = nullptr; }
    return *this;
  }
  PortRef(const PortRef&) = delete;
  PortRef& operator=(const PortRef&) = delete;
  ~PortRef() { Reset(); }

  void Reset() { if (port_) port_->Release(); port_ = nullptr; }
  COpenPort* get() const { return port_; }
  COpenPort* operator->() const { return port_; }
  explicit operator bool() const { return port_ != nullptr; }

 private:
  COpenPort* port_ = nullptr;
};

// Counts a component call for a member, from before its membership check to after the call.
class CallScope {
 public:
  explicit CallScope(const COpenPort* port);
  ~CallScope();
  CallScope(const CallScope&) = delete;
  CallScope& operator=(const CallScope&) = delete;

 private:
  const COpenPort* port_;
};

// One walk of a port's members: its list and its place in the busy count.
class WalkScope {
 public:
  explicit WalkScope(COpenPort* port);
  ~WalkScope();
  WalkScope(const WalkScope&) = delete;
  WalkScope& operator=(const WalkScope&) = delete;

  const MemberList& members() const { return *members_; }
  // Whether `member` left the port after this walk began (only a leaver on this walk's own thread
  // can have, the others wait for the walk).
  bool Left(CSKConnection* member) const;

 private:
  COpenPort* port_;
  MemberList* members_;
  int half_;
  uint32_t changes_;
};

template <class Tell>
void COpenPort::ForEachMember(CSKConnection* except, Tell tell) {
  WalkScope walk(this);
  for (CSKConnection* member : walk.members().items()) {
    if (member == except || walk.Left(member)) continue;
    tell(member);
  }
}

// The port layer's algorithms that read and change a connection's port state. One class so that
// CSKConnection needs a single friend; the functions live in the files named beside them.
class PortAccess {
 public:
  // port_lock.cpp. Lock and UnlockRequest answer SKR_INVALID_HANDLE for a connection that is not
  // a member (checked under the lock-queue lock), as Exclusive does.
  static uint32_t Lock(COpenPort* port, CSKConnection* connection);
  static uint32_t UnlockRequest(COpenPort* port, CSKConnection* connection);
  // Removes the connection's entries, gives up its exclusive-writer flag, clears lock granted, and
  // passes the lock on when it held it. Called by Close after the connection left the members.
  static void Unlock(COpenPort* port, CSKConnection* connection);
  static uint32_t Exclusive(COpenPort* port, CSKConnection* connection, uint32_t value);
  // The access check of Write: SKR_NOT_LOCKED, SKR_LOCKED_BY_OTHER or SKR_SUCCESS.
  static uint32_t CheckWriteAccess(COpenPort* port, CSKConnection* connection);
  // SK_EVENT_LOCK_CHANGED from the stack.
  static void LockChanged(COpenPort* port);

  // port_events.cpp: the event sink handed to the stack, the delivery of the events it raised
  // while the port opened (by the opener, once the port is published), and delivery to all
  // members but one.
  static void SKEIN_CALL EventSink(uint32_t number, uint32_t event, SkBlob* data);
  static void DeliverEarlyEvents(COpenPort* port);
  static void SendToOthers(COpenPort* port, CSKConnection* except, uint32_t event, const BlobRef& data);

  // port_router.cpp: every control code the port does not serve itself.
  static uint32_t Route(COpenPort* port, CSKConnection* connection, uint32_t code, const BlobRef& input,
                        BlobRef* output);

  // Connection fields, for the files above.
  static void SetLockGranted(CSKConnection* connection, bool on);
  static bool HasKey(const CSKConnection* connection);
};

}  // namespace orlenda
