// The port lock: lock requests, admission, unlock and hand-over, the exclusive-writer flag, the
// write access check, and the stack's report that the device's lock state moved.
//
// The lock queue holds connections in arrival order, and at most one null placeholder, always at
// its front. A placeholder stands for "the device is held by someone outside this service" (the
// stack reported lock state 2, or could not be locked again): while it is at the front no entry
// holds the lock in the sense of the locked-port query. It is taken away by a lock request
// (which, when the queue is not left empty, puts it back at the front) and by
// SK_EVENT_LOCK_CHANGED (which puts it back while the stack still reports the device held).
//
// Holders: the first non-null entry, plus every entry with an access key such that no entry
// before it has an empty key or the same key ("keyed entries share the lock beside the holders").
//
// Hand-over, after an unlock or a Close took the leaver's entries out:
//  1. A placeholder at the front stops the hand-over: the lock waits for the device, and the
//     stack's SK_EVENT_LOCK_CHANGED with state 3 resumes it.
//  2. The first entry, if it does not hold lock granted yet, is admitted (the stack's SK_PORT_LOCK
//     and the SK_EVENT_LOCK notices to the members). When the stack refuses with a code of the
//     0x0006xxxx family (device busy) the entry stays and a placeholder goes in front of it; any
//     other refusal drops the entry (its lock granted is set all the same, as for every failed
//     admission) and the next entry is tried. Waiting entries are thus admitted strictly in
//     arrival order.
//  3. Every later entry that now qualifies as a keyed holder and lacks lock granted gets it and is
//     told alone (SK_EVENT_LOCK 1), as a keyed lock request granted beside the holders is.
// SK_EVENT_LOCK_CHANGED with state 3 re-locks the stack for the first entry (SK_PORT_LOCK with
// 0x10000001 when that entry has an access key, else 1, as in admission), then grants the holders
// by rule 3 and rule 2 without a second SK_PORT_LOCK, and only then tells each queued connection
// 1 or 2; without that grant a waiter that reached the front behind a placeholder would never be
// admitted.
//
// An unlock (SK_PORT_LOCK with 2, or Close) also clears the connection's lock granted, so a
// connection that gave the lock back can no longer write.
#include <iterator>

#include "common/result_codes.h"
#include "ports/open_port.h"
#include "ports/port_table.h"
#include "ports/sk_connection.h"

namespace orlenda {
namespace {

constexpr uint32_t kStackLock = 1;
constexpr uint32_t kHoldsLock = 1;
constexpr uint32_t kOtherHoldsLock = 2;
constexpr uint32_t kStateHeldElsewhere = 2;
constexpr uint32_t kStateFreeAgain = 3;

using Queue = COpenPort::LockQueue;

// A refusal that means "the device is busy": the entry keeps its place behind a placeholder.
bool IsBusyRefusal(uint32_t result) { return (result & 0x0FFF0000u) == 0x00060000u; }

void Tell(CSKConnection* connection, uint32_t event, uint32_t value) {
  connection->Event(event, BlobRef::Adopt(DwordBlobCreate(value)));
}

uint32_t StackLockValue(CSKConnection* connection) {
  return PortAccess::HasKey(connection) ? SK_PORT_LOCK_WITH_KEY : kStackLock;
}

// Whether the entry at `at` (with an access key) shares the lock: no entry before it has an empty
// key or the same key.
bool SharesLock(const Queue& queue, Queue::const_iterator at) {
  const WString key = (*at)->access_key();
  if (key.empty()) return false;
  for (auto it = queue.begin(); it != at; ++it) {
    if (*it == nullptr) continue;
    const WString other = (*it)->access_key();
    if (other.empty() || other == key) return false;
  }
  return true;
}

// The lock-queue lock for a scope; the queue's state for the locked-port query is published
// before it is left, and a change of it is told to whoever keeps the system awake: a port also
// becomes unlocked when its holder closes or its connection is lost, with no unlock request.
class QueueHold {
 public:
  explicit QueueHold(COpenPort* port) : port_(port), hold_(port->queue_lock()) {}
  ~QueueHold() {
    if (port_->PublishQueueState()) LockStateChangedEvent().Set();
  }
  QueueHold(const QueueHold&) = delete;
  QueueHold& operator=(const QueueHold&) = delete;

 private:
  COpenPort* port_;
  platform::ScopedLock hold_;
};

// Admission of `connection`: the stack's lock, then the notices to the members. Under the
// lock-queue lock.
//
// Lock granted is set before any member is told: a client that waits for SK_EVENT_LOCK 1 and
// writes the moment it arrives must find its write allowed. Nothing else can tell the two orders
// apart.
uint32_t Admit(COpenPort* port, CSKConnection* connection) {
  const uint32_t result = port->StackIoctlDword(SK_PORT_LOCK, StackLockValue(connection));
  PortAccess::SetLockGranted(connection, true);  // on a refusal too: a stack without locking still writes
  if (result != SKR_SUCCESS) return result;
  const WString member = connection->member_name();
  port->ForEachMember(nullptr, [&](CSKConnection* other) {
    if (other == connection) {
      Tell(other, SK_EVENT_LOCK, kHoldsLock);
      return;
    }
    if (!member.empty()) {
      const WString other_member = other->member_name();
      if (!other_member.empty() && other_member != member) return;
    }
    Tell(other, SK_EVENT_LOCK, kOtherHoldsLock);
  });
  return SKR_SUCCESS;
}

// Rule 3 of the hand-over: keyed entries that now share the lock. Under the lock-queue lock.
void GrantSharers(Queue& queue, bool tell) {
  for (auto it = queue.begin(); it != queue.end(); ++it) {
    if (*it == nullptr || (*it)->lock_granted()) continue;
    if (!SharesLock(queue, it)) continue;
    PortAccess::SetLockGranted(*it, true);
    if (tell) Tell(*it, SK_EVENT_LOCK, kHoldsLock);
  }
}

// The exclusive-writer step with 0 for the holder: the stack is told (its answer does not matter),
// then the other members. Does nothing for a connection that does not hold the flag. Under the
// lock-queue lock.
void GiveUpExclusive(COpenPort* port, CSKConnection* connection) {
  CSKConnection*& holder = port->exclusive_writer();
  if (holder != connection) return;
  const BlobRef notice = BlobRef::Adopt(DwordBlobCreate(0));
  port->StackIoctl(SK_PORT_EXCLUSIVE, notice, nullptr);
  PortAccess::SendToOthers(port, connection, SK_EVENT_EXCLUSIVE, notice);
  holder = nullptr;
}

// Rules 1-3 of the hand-over. Under the lock-queue lock.
void PassOn(COpenPort* port) {
  Queue& queue = port->queue();
  while (!queue.empty() && queue.front() != nullptr) {
    CSKConnection* first = queue.front();
    if (first->lock_granted()) break;
    const uint32_t result = Admit(port, first);
    if (result == SKR_SUCCESS) break;
    if (IsBusyRefusal(result)) {
      queue.push_front(nullptr);
      return;
    }
    queue.pop_front();
  }
  if (queue.empty() || queue.front() == nullptr) return;
  GrantSharers(queue, true);
}

}  // namespace

uint32_t PortAccess::Lock(COpenPort* port, CSKConnection* connection) {
  QueueHold hold(port);
  if (!port->IsMember(connection)) return SKR_INVALID_HANDLE;
  if (port->suspended()) return SKR_SUSPENDED;
  Queue& queue = port->queue();

  bool placeholder_removed = false;
  if (!queue.empty() && queue.front() == nullptr) {
    queue.pop_front();
    placeholder_removed = true;
  }

  uint32_t result;
  bool kept_after_refusal = false;
  if (queue.empty()) {
    result = Admit(port, connection);
    if (result == SKR_SUCCESS) {
      queue.push_back(connection);
    } else if (IsBusyRefusal(result)) {
      queue.push_back(connection);
      kept_after_refusal = true;
    }
  } else if (HasKey(connection)) {
    queue.push_back(connection);
    result = SKR_LOCK_PENDING;
    if (SharesLock(queue, std::prev(queue.end()))) {
      SetLockGranted(connection, true);
      if (!placeholder_removed) {
        Tell(connection, SK_EVENT_LOCK, kHoldsLock);
        result = SKR_SUCCESS;
      }
    }
  } else {
    queue.push_back(connection);
    result = SKR_LOCK_PENDING;
  }

  if ((placeholder_removed || kept_after_refusal) && !queue.empty()) queue.push_front(nullptr);
  return result;
}

uint32_t PortAccess::UnlockRequest(COpenPort* port, CSKConnection* connection) {
  QueueHold hold(port);
  if (!port->IsMember(connection)) return SKR_INVALID_HANDLE;
  Unlock(port, connection);
  return SKR_SUCCESS;
}

void PortAccess::Unlock(COpenPort* port, CSKConnection* connection) {
  QueueHold hold(port);
  port->queue().remove(connection);
  GiveUpExclusive(port, connection);
  SetLockGranted(connection, false);
  PassOn(port);
}

uint32_t PortAccess::Exclusive(COpenPort* port, CSKConnection* connection, uint32_t value) {
  platform::ScopedLock hold(port->queue_lock());
  if (!port->IsMember(connection)) return SKR_INVALID_HANDLE;
  if (!connection->lock_granted()) return SKR_NOT_LOCKED;
  CSKConnection*& holder = port->exclusive_writer();
  if (holder == connection ? value != 0 : (holder == nullptr && value == 0)) return SKR_SUCCESS;
  if (holder != nullptr && holder != connection) return SKR_LOCKED_BY_OTHER;
  if (holder == connection) {
    GiveUpExclusive(port, connection);
    return SKR_SUCCESS;
  }

  const BlobRef notice = BlobRef::Adopt(DwordBlobCreate(value));
  const uint32_t result = port->StackIoctl(SK_PORT_EXCLUSIVE, notice, nullptr);
  if (result != SKR_SUCCESS && result != SKR_INVALID_PARAMETER) return result;
  SendToOthers(port, connection, SK_EVENT_EXCLUSIVE, notice);
  holder = connection;
  return SKR_SUCCESS;
}

uint32_t PortAccess::CheckWriteAccess(COpenPort* port, CSKConnection* connection) {
  if (!connection->lock_granted()) return SKR_NOT_LOCKED;
  if (HasKey(connection)) {
    platform::ScopedLock hold(port->queue_lock());
    CSKConnection* holder = port->exclusive_writer();
    if (holder != nullptr && holder != connection) return SKR_LOCKED_BY_OTHER;
  }
  return SKR_SUCCESS;
}

void PortAccess::LockChanged(COpenPort* port) {
  QueueHold hold(port);
  Queue& queue = port->queue();
  if (!queue.empty() && queue.front() == nullptr) queue.pop_front();
  if (queue.empty()) return;

  BlobRef answer;
  uint32_t state = 0;
  if (port->StackIoctl(SK_LOCK_STATE, BlobRef(), &answer) != SKR_SUCCESS) return;
  if (!DwordBlobRead(answer.get(), &state)) return;
  if (state == kStateHeldElsewhere) {
    queue.push_front(nullptr);
    return;
  }
  if (state != kStateFreeAgain) return;

  CSKConnection* first = queue.front();  // never null: the only placeholder was taken away
  if (first == nullptr) return;
  if (port->StackIoctlDword(SK_PORT_LOCK, StackLockValue(first)) != SKR_SUCCESS) {
    queue.push_front(nullptr);
    return;
  }
  SetLockGranted(first, true);
  GrantSharers(queue, false);
  HeapSet<CSKConnection*> told;
  for (CSKConnection* entry : queue) {
    if (!told.insert(entry).second) continue;
    Tell(entry, SK_EVENT_LOCK, entry->lock_granted() ? kHoldsLock : kOtherHoldsLock);
  }
}

}  // namespace orlenda
