// The port table and the parsing of open names.
#include "ports/port_table.h"

#include <optional>

#include "common/result_codes.h"
#include "components/port_stack.h"
#include "platform/thread.h"
#include "ports/sk_connection.h"

namespace orlenda {

// ---- Names ----

namespace {

WStringView StripSlashes(WStringView text) {
  while (!text.empty() && text.front() == u'/') text.remove_prefix(1);
  while (!text.empty() && text.back() == u'/') text.remove_suffix(1);
  return text;
}

}  // namespace

PortName ParsePortName(WStringView requested) {
  PortName parsed;
  WStringView name = requested;
  const std::size_t question = name.find(u'?');
  if (question != WStringView::npos) {
    WStringView key = name.substr(question + 1);
    const std::size_t equals = key.find(u'=');
    if (equals != WStringView::npos) key = key.substr(equals + 1);
    parsed.key.assign(key.data(), key.size());
    name = name.substr(0, question);
  }
  name = StripSlashes(name);
  parsed.name.assign(name.data(), name.size());
  const std::size_t slash = name.find(u'/');
  if (slash == WStringView::npos) {
    parsed.port = parsed.name;
  } else {
    parsed.port.assign(name.data(), slash);
    const WStringView member = name.substr(slash + 1);
    parsed.member.assign(member.data(), member.size());
  }
  return parsed;
}

// ---- The table ----

namespace {

std::optional<platform::CriticalSection> g_table_lock;

}  // namespace

platform::CriticalSection* PortTable::table_lock() { return g_table_lock ? &*g_table_lock : nullptr; }

platform::CriticalSection& PortTable::lookup_lock() {
  static platform::CriticalSection lock;
  return lock;
}

PortTable::Map& PortTable::map() {
  static Map ports;
  return ports;
}

HeapSet<uint32_t>& PortTable::closing() {
  static HeapSet<uint32_t> numbers;
  return numbers;
}

void PortTable::CreateLock() { g_table_lock.emplace(); }

void PortTable::DeleteLock() { g_table_lock.reset(); }

PortRef PortTable::Find(uint32_t number) { return Lookup(number, /*opening_too=*/false); }

PortRef PortTable::FindReserved(uint32_t number) { return Lookup(number, /*opening_too=*/true); }

PortRef PortTable::Lookup(uint32_t number, bool opening_too) {
  platform::ScopedLock hold(lookup_lock());
  auto found = map().find(number);
  if (found == map().end()) return PortRef();
  if (!opening_too && found->second->opening_.load(std::memory_order_acquire)) return PortRef();
  found->second->AddRef();
  return PortRef::Adopt(found->second);
}

bool PortTable::IsPublished(const COpenPort* port) {
  platform::ScopedLock hold(lookup_lock());
  auto found = map().find(port->number());
  return found != map().end() && found->second == port && !port->opening_.load(std::memory_order_acquire);
}

std::size_t PortTable::Size() {
  platform::ScopedLock hold(lookup_lock());
  return map().size();
}

uint32_t PortTable::OpenByName(CSKConnection* connection, const WString& name, uint32_t* number) {
  platform::CriticalSection* table = table_lock();
  if (table == nullptr) return SKR_FAILED;
  table->Enter();

  // Insertions and erasures happen only under the port-table lock, which is held: the map can be
  // read without the lookup lock.
  for (;;) {
    COpenPort* found = nullptr;
    for (const auto& entry : map()) {
      if (entry.second->name() == name) {
        found = entry.second;
        break;
      }
    }
    if (found == nullptr) break;
    if (!found->opening_.load(std::memory_order_acquire)) {
      const bool added = found->AddMember(connection);
      if (added) *number = found->number();
      table->Leave();
      return added ? SKR_SUCCESS : SKR_INVALID_PARAMETER;
    }
    if (found->opener_ == platform::CurrentThreadId()) {
      // A component of this very stack asks for its own port from inside its Open: the port is
      // not there yet, and waiting for it would wait for ourselves.
      table->Leave();
      return SKR_INVALID_HANDLE;
    }
    // Another thread is opening this name: wait for it without the lock, then look again (its
    // open may have failed).
    found->AddRef();
    const PortRef opening = PortRef::Adopt(found);
    table->Leave();
    found->opened_.Wait(platform::kInfinite);
    table->Enter();
  }

  // The smallest number that is neither in the table nor still being closed: a number whose last
  // member left is out of the table at once, but its stack instance stays open until that Close
  // has called the stack's Close, and a stack must never be opened twice under one number.
  uint32_t free_number = 1;
  while (map().count(free_number) != 0 || closing().count(free_number) != 0) ++free_number;

  COpenPort* port = HeapNew<COpenPort>(free_number);
  if (port == nullptr || !port->AddMember(connection)) {
    if (port != nullptr) port->Release();
    table->Leave();
    return SKR_OUT_OF_MEMORY;
  }
  port->name_ = name;
  port->stack_.Event = &PortAccess::EventSink;
  port->opener_ = platform::CurrentThreadId();
  port->opening_.store(true, std::memory_order_release);
  {
    platform::ScopedLock lookup(lookup_lock());
    map().emplace(free_number, port);  // the table's reference is the one HeapNew made
  }
  table->Leave();

  // The stack opens with the number and the name reserved but no lock held, so that a slow device
  // delays no other port. Lookups skip the port until it is published; the events the stack
  // raises meanwhile wait in the port and go to its members (the opener among them) once it is.
  const uint32_t result = OpenStack(free_number, View(name), &port->stack_);

  {
    platform::ScopedLock hold(*table);
    {
      platform::ScopedLock lookup(lookup_lock());
      if (result != SKR_SUCCESS) map().erase(free_number);
      port->opening_.store(false, std::memory_order_release);
    }
    port->opened_.Set();
  }
  if (result != SKR_SUCCESS) {
    port->Release();  // with it the events that waited
    return result;
  }
  // The table's reference may go with a Close of another member meanwhile: deliver under one of
  // our own.
  port->AddRef();
  const PortRef published = PortRef::Adopt(port);
  PortAccess::DeliverEarlyEvents(port);
  *number = free_number;
  return SKR_SUCCESS;
}

uint32_t PortTable::Close(CSKConnection* connection, uint32_t number) {
  platform::CriticalSection* table = table_lock();
  if (table == nullptr) return SKR_INVALID_HANDLE;
  PortRef port = Find(number);
  if (!port) return SKR_INVALID_HANDLE;

  // Leaving waits for walks of the members, which make no component call; no lock is held.
  uint32_t result = port->RemoveMember(connection) ? SKR_SUCCESS : SKR_INVALID_HANDLE;
  PortAccess::Unlock(port.get(), connection);

  bool last = false;
  {
    // Members join only under the port-table lock, so "none left" cannot change before the port
    // leaves the table; of two last Closes, the first one here takes it out.
    platform::ScopedLock hold(*table);
    auto entry = map().find(number);
    if (entry != map().end() && entry->second == port.get() && !port->HasMembers()) {
      platform::ScopedLock lookup(lookup_lock());
      map().erase(entry);
      closing().insert(number);
      last = true;
    }
  }
  if (!last) return result;

  // The table's reference now belongs to this Close. Calls already inside the stack end before it
  // is closed; no lock is held meanwhile, so other ports go on.
  const PortRef table_reference = PortRef::Adopt(port.get());
  port->WaitForCalls();
  if (port->stack().Close != nullptr && number != 0) result = port->stack().Close(number);
  platform::ScopedLock hold(*table);
  closing().erase(number);
  return result;
}

}  // namespace orlenda
