// COpenPort: one open port name, shared by every connection that opened that name, and with it one
// instance of the port's component stack.
//
// Fields and what guards them:
//  - members (connection pointers): the members lock, plus the busy counter. A walk of the members
//    raises busy (the members lock is held for the increment only) and reads the set without the
//    lock; adding or removing a member takes the members lock and waits, polling every 10 ms with
//    the lock left while it sleeps, until busy is 0. So the set never changes under a walk.
//  - lock queue and exclusive writer: the lock-queue lock.
//  - name, number, stack entry points: written once while the port is opened (under the port-table
//    lock, before the port enters the table) and read-only afterwards.
//  - suspended: a manual-reset event, set while the system is suspended.
//
// Lifetime: the port is reference counted. The port table holds one reference from the port's
// insertion to the Close of its last member; every lookup hands out one more (PortRef), taken
// under the lookup lock of the table, so a port found by a request or an event sink stays
// allocated until that user lets go, whatever a concurrent Close does. The stack's Close is called
// once, by the Close that removes the last member; the memory goes with the last reference.
//
// Connection pointers: a connection leaves the members and the lock queue in its own Close before
// it goes away (slot 2). Every operation that acts for a member holds busy from its membership
// check to the end of its stack call, and removing a member waits for busy to fall to 0. Hence:
//  - a member's Write, Ioctl or lock request that passed the membership check finishes before that
//    member's removal does, so it never appends to the lock queue after the Close has cleared it,
//    and the stack's Close never overlaps a member's own stack call;
//  - a walk of the members (events, lock notices) only meets connections that are still alive.
// Lock-queue entries are read and dereferenced only under the lock-queue lock, and a Close removes
// its connection's entries under that lock, so the queue never holds a dangling pointer.
//
// Lock order: the port-table lock, then the lock-queue lock, then the members lock. The lookup lock
// and a connection's state lock are leaves. The members lock is never held while anything else is
// taken or called; busy is not a lock, but a thread holding busy never waits for the port-table
// lock (lookups take only the lookup lock), so the busy wait of a Close under the port-table lock
// always ends.
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

  // Members. Insert fails (false) when present, Remove when absent. Both wait for busy to be 0.
  bool AddMember(CSKConnection* connection);
  bool RemoveMember(CSKConnection* connection);
  // With busy raised by the caller: the set is stable.
  bool IsMember(CSKConnection* connection) const { return members_.count(connection) != 0; }
  bool HasMembers() const { return !members_.empty(); }
  const HeapSet<CSKConnection*>& members() const { return members_; }

  void RaiseBusy();
  void LowerBusy() { busy_.fetch_sub(1, std::memory_order_acq_rel); }

  bool suspended() const { return suspended_.Wait(0); }
  void SetSuspended(bool on) { on ? suspended_.Set() : suspended_.Reset(); }

  // The stack's Write and Ioctl with the port's number. Each hands the callee a reference of its
  // own on the input; a missing entry answers SKR_INVALID_HANDLE. A null `output` reaches the
  // stack as a missing output slot.
  uint32_t StackWrite(const BlobRef& data, uint32_t* written) const;
  uint32_t StackIoctl(uint32_t code, const BlobRef& input, BlobRef* output) const;
  // Ioctl with a DWORD parameter; the output, if any, is dropped.
  uint32_t StackIoctlDword(uint32_t code, uint32_t value) const;

  platform::CriticalSection& queue_lock() { return queue_lock_; }
  // Under queue_lock().
  LockQueue& queue() { return queue_; }
  CSKConnection*& exclusive_writer() { return exclusive_writer_; }

  // Number of COpenPort objects alive in the process (a test hook for leak checks).
  static long LiveCount() { return live_.load(std::memory_order_acquire); }

 private:
  friend class PortTable;  // fills name and stack while opening

  std::atomic<long> references_{1};
  const uint32_t number_;
  WString name_;
  SkComponentTable stack_{};
  mutable platform::Event suspended_{platform::ResetMode::kManual, false};

  platform::CriticalSection members_lock_;
  std::atomic<int32_t> busy_{0};
  HeapSet<CSKConnection*> members_;

  platform::CriticalSection queue_lock_;
  LockQueue queue_;
  CSKConnection* exclusive_writer_ = nullptr;

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

// Raises a port's busy count for a scope.
class BusyScope {
 public:
  explicit BusyScope(COpenPort* port) : port_(port) { port_->RaiseBusy(); }
  ~BusyScope() { port_->LowerBusy(); }
  BusyScope(const BusyScope&) = delete;
  BusyScope& operator=(const BusyScope&) = delete;

 private:
  COpenPort* port_;
};

// The port layer's algorithms that read and change a connection's port state. One class so that
// CSKConnection needs a single friend; the functions live in the files named beside them.
class PortAccess {
 public:
  // port_lock.cpp. Each runs with busy raised by the caller and the caller's membership checked.
  static uint32_t Lock(COpenPort* port, CSKConnection* connection);
  // Removes the connection's entries, gives up its exclusive-writer flag, clears lock granted, and
  // passes the lock on when it held it. Also called by Close, with busy not raised (the connection
  // is no member any more then; the walks it makes raise busy themselves).
  static void Unlock(COpenPort* port, CSKConnection* connection);
  static uint32_t Exclusive(COpenPort* port, CSKConnection* connection, uint32_t value);
  // The access check of Write: SKR_NOT_LOCKED, SKR_LOCKED_BY_OTHER or SKR_SUCCESS.
  static uint32_t CheckWriteAccess(COpenPort* port, CSKConnection* connection);
  // SK_EVENT_LOCK_CHANGED from the stack; busy raised by the caller.
  static void LockChanged(COpenPort* port);

  // port_events.cpp: the event sink handed to the stack, and delivery to all members but one.
  static void SKEIN_CALL EventSink(uint32_t number, uint32_t event, SkBlob* data);
  // With busy raised by the caller.
  static void SendToOthers(COpenPort* port, CSKConnection* except, uint32_t event, const BlobRef& data);

  // port_router.cpp: every control code the port does not serve itself.
  static uint32_t Route(COpenPort* port, CSKConnection* connection, uint32_t code, const BlobRef& input,
                        BlobRef* output);

  // Connection fields, for the files above.
  static void SetLockGranted(CSKConnection* connection, bool on);
  static bool HasKey(const CSKConnection* connection);
};

}  // namespace orlenda
