// CSKConnection's own state: the strings set by Open, the registered events and their delivery;
// and LocalConnection, the connection without a transport.
//
// Registration changes are not locked against event delivery as a whole: Event reads the set
// under the state lock and pushes after leaving it, so a registration made while an event is on
// its way may or may not see that event.
#include "ports/sk_connection.h"

#include "logging/log.h"
#include "ports/open_port.h"

namespace orlenda {

namespace {
constexpr uint32_t kTraceLevel = 4;
}  // namespace

CSKConnection::CSKConnection() = default;

CSKConnection::~CSKConnection() = default;

WString CSKConnection::access_key() const {
  platform::ScopedLock hold(state_lock_);
  return access_key_;
}

WString CSKConnection::member_name() const {
  platform::ScopedLock hold(state_lock_);
  return member_name_;
}

uint32_t CSKConnection::RegisterCallback(uint32_t event) {
  bool inserted;
  {
    platform::ScopedLock hold(state_lock_);
    inserted = registered_events_.insert(event).second;
  }
  if (inserted) {
    Log(kTraceLevel, u"-- %08x::RegisterCallback(%d, %08x) <SKR_SUCCESS>", trace_id(), port_number(), event);
  } else {
    Log(kTraceLevel, u"-- %08x::RegisterCallback(%d, %08x) <SKR_SUCCESS> already registered", trace_id(),
        port_number(), event);
  }
  return SKR_SUCCESS;
}

uint32_t CSKConnection::UnregisterCallback(uint32_t event) {
  bool erased;
  {
    platform::ScopedLock hold(state_lock_);
    erased = registered_events_.erase(event) != 0;
  }
  if (erased) {
    Log(kTraceLevel, u"-- %08x::UnregisterCallback(%d, %08x) <SKR_SUCCESS>", trace_id(), port_number(), event);
  } else {
    Log(kTraceLevel, u"-- %08x::UnregisterCallback(%d, %08x) <SKR_SUCCESS> not registered", trace_id(),
        port_number(), event);
  }
  return SKR_SUCCESS;
}

void CSKConnection::Event(uint32_t event, const BlobRef& data) {
  {
    platform::ScopedLock hold(state_lock_);
    if (registered_events_.count(event) == 0) return;
  }
  if ((event & SK_EVENT_LOCK_ONLY) != 0 && !lock_granted()) return;

  uint32_t value = 0;
  if (DwordBlobRead(data.get(), &value)) {
    Log(kTraceLevel, u"** %08x::Event(%d, %08x, %08x)", trace_id(), port_number(), event, value);
  } else {
    LogDataFormat(kTraceLevel, data.data(), TracedBytes(data), u"** %08x::Event(%d, %08x)",
                  trace_id(), port_number(), event);
  }
  PushEvent(event, data);
}

// ---- Connection fields for the port layer ----

void PortAccess::SetLockGranted(CSKConnection* connection, bool on) {
  connection->lock_granted_.store(on, std::memory_order_release);
}

bool PortAccess::HasKey(const CSKConnection* connection) {
  platform::ScopedLock hold(connection->state_lock_);
  return !connection->access_key_.empty();
}

// ---- LocalConnection ----

LocalConnection::~LocalConnection() {
  // A connection that goes away gives up its port like an explicit Close; the transports do the
  // same through slot 2. Close on a closed connection only traces.
  if (port_number() != 0) Close();
}

void LocalConnection::PushEvent(uint32_t event, BlobRef data) {
  platform::ScopedLock hold(events_lock_);
  events_.push_back(ReceivedEvent{event, std::move(data)});
}

HeapVector<LocalConnection::ReceivedEvent> LocalConnection::TakeEvents() {
  platform::ScopedLock hold(events_lock_);
  HeapVector<ReceivedEvent> taken;
  taken.swap(events_);
  return taken;
}

}  // namespace orlenda
