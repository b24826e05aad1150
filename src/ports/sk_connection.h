// CSKConnection: a client connection as the port layer sees it. The connection is itself the
// handle of at most one open port: Open, Close, Write and Ioctl act on that port, and the events
// the connection registered arrive through its event push.
//
// Every operation may run at the same time as any other, also on one connection (each client
// request runs on a thread of its own).
//
// Lock order (see port_table.h): the connection's open lock, the port-table lock, then a port's
// lock-queue lock and its members lock; a connection's own state lock is taken last and never held
// while calling out.
#pragma once

#include <atomic>
#include <cstdint>

#include "common/blob.h"
#include "common/heap.h"
#include "common/wide_string.h"
#include "platform/sync.h"

namespace orlenda {

// How much of a request's or an event's data its trace carries: the first kTraceDataBytes, enough to
// recognise it; a 64 KiB write must not cost a 64 KiB trace record (nor a 200 KB log line).
constexpr uint32_t kTraceDataBytes = 1024;
inline uint32_t TracedBytes(const BlobRef& data) {
  return data.size() < kTraceDataBytes ? static_cast<uint32_t>(data.size()) : kTraceDataBytes;
}

class CSKConnection {
 public:
  CSKConnection();
  virtual ~CSKConnection();
  CSKConnection(const CSKConnection&) = delete;
  CSKConnection& operator=(const CSKConnection&) = delete;

  // Virtual slot 0: puts an event on the wire. `data` is a reference of the push's own. Called on
  // the thread that raised the event.
  virtual void PushEvent(uint32_t event, BlobRef data) = 0;

  // Opens the port `name` ("PORT", "PORT/MEMBER", with "?KEY" or "?NAME=KEY" after it); the name
  // is consumed (emptied) whatever the outcome.
  uint32_t Open(WString* name);
  // Virtual slot 2: gives up the port, its lock and the exclusive-writer flag; the transport calls
  // it when the connection goes away. Always leaves the connection closed.
  virtual uint32_t Close();
  uint32_t Write(const BlobRef& data, uint32_t* written);
  uint32_t Ioctl(uint32_t code, const BlobRef& input, BlobRef* output);

  uint32_t RegisterCallback(uint32_t event);
  uint32_t UnregisterCallback(uint32_t event);
  // Delivers an event to this connection when it registered it (and, for events with bit 29 set,
  // holds the lock).
  void Event(uint32_t event, const BlobRef& data);

  // Whether requests of this connection are still running (a transport's connection says; the
  // server then lets the connection go off its dispatcher thread).
  virtual bool HasRequestsRunning() const { return false; }

  // 0 when no port is open.
  uint32_t port_number() const { return port_number_.load(std::memory_order_acquire); }
  bool lock_granted() const { return lock_granted_.load(std::memory_order_acquire); }
  WString access_key() const;
  WString member_name() const;
  // The connection's identity in traces ("%08x").
  uint32_t trace_id() const { return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(this)); }

 private:
  friend class PortAccess;  // the port layer's algorithms (port_table, lock, events)

  // Open and Close of this connection run one at a time (taken before the port-table lock), so a
  // Close cannot reset the state of an Open that overtook it.
  platform::CriticalSection open_lock_;
  std::atomic<uint32_t> port_number_{0};
  std::atomic<bool> lock_granted_{false};
  mutable platform::CriticalSection state_lock_;  // guards the strings and the event set
  WString access_key_;
  WString member_name_;
  HeapSet<uint32_t> registered_events_;
};

// A connection with no transport: events it receives are kept in order. Used by the tests and by
// the port enumeration of the host service table.
class LocalConnection : public CSKConnection {
 public:
  struct ReceivedEvent {
    uint32_t event;
    BlobRef data;
  };

  ~LocalConnection() override;
  void PushEvent(uint32_t event, BlobRef data) override;
  // The events received so far, and forgets them.
  HeapVector<ReceivedEvent> TakeEvents();

 private:
  platform::CriticalSection events_lock_;
  HeapVector<ReceivedEvent> events_;
};

}  // namespace orlenda
