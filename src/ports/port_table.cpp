// The port table, the open-port record and the parsing of open names.
#include "ports/port_table.h"

#include <optional>

#include "common/result_codes.h"
#include "components/port_stack.h"
#include "platform/thread.h"
#include "ports/sk_connection.h"

namespace orlenda {

// ---- COpenPort ----

std::atomic<long> COpenPort::live_{0};

COpenPort::COpenPort(uint32_t number) : number_(number) { live_.fetch_add(1, std::memory_order_acq_rel); }

COpenPort::~COpenPort() { live_.fetch_sub(1, std::memory_order_acq_rel); }

void COpenPort::Release() {
  if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1) HeapDelete(this);
}

void COpenPort::RaiseBusy() {
  platform::ScopedLock hold(members_lock_);
  busy_.fetch_add(1, std::memory_order_acq_rel);
}

namespace {

// Busy as a compare-exchange reads it: unchanged, and ordered after every walk that lowered it.
int32_t ReadBusy(std::atomic<int32_t>& busy) {
  int32_t expected = 0;
  busy.compare_exchange_strong(expected, 0, std::memory_order_acq_rel);
  return expected;
}

constexpr uint32_t kBusyPollMs = 10;

}  // namespace

bool COpenPort::AddMember(CSKConnection* connection) {
  members_lock_.Enter();
  while (ReadBusy(busy_) > 0) {
    members_lock_.Leave();
    platform::SleepMs(kBusyPollMs);
    members_lock_.Enter();
  }
  const bool inserted = members_.insert(connection).second;
  members_lock_.Leave();
  return inserted;
}

bool COpenPort::RemoveMember(CSKConnection* connection) {
  members_lock_.Enter();
  while (ReadBusy(busy_) > 0) {
    members_lock_.Leave();
    platform::SleepMs(kBusyPollMs);
    members_lock_.Enter();
  }
  const bool erased = members_.erase(connection) != 0;
  members_lock_.Leave();
  return erased;
}

uint32_t COpenPort::StackWrite(const BlobRef& data, uint32_t* written) const {
  if (stack_.Write == nullptr) return SKR_INVALID_HANDLE;
  BlobRef passed = data;  // the reference that goes to the stack
  return stack_.Write(number_, ToSkBlob(passed.Release()), written);
}

uint32_t COpenPort::StackIoctl(uint32_t code, const BlobRef& input, BlobRef* output) const {
  if (stack_.Ioctl == nullptr) return SKR_INVALID_HANDLE;
  BlobRef passed = input;
  SkBlob* out = nullptr;
  // A caller without an output slot passes none down: some requests answer that with
  // SKR_INVALID_SIZE.
  const uint32_t result = stack_.Ioctl(number_, code, ToSkBlob(passed.Release()), output ? &out : nullptr);
  if (output != nullptr) *output = BlobRef::Adopt(FromSkBlob(out));
  return result;
}

uint32_t COpenPort::StackIoctlDword(uint32_t code, uint32_t value) const {
  const BlobRef input = BlobRef::Adopt(DwordBlobCreate(value));
  if (!input) return SKR_OUT_OF_MEMORY;
  BlobRef dropped;  // a slot of our own: not every stack checks for a missing one
  return StackIoctl(code, input, &dropped);
}

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

PortRef PortTable::Find(uint32_t number) {
  platform::ScopedLock hold(lookup_lock());
  auto found = map().find(number);
  if (found == map().end()) return PortRef();
  found->second->AddRef();
  return PortRef::Adopt(found->second);
}

std::size_t PortTable::Size() {
  platform::ScopedLock hold(lookup_lock());
  return map().size();
}

uint32_t PortTable::OpenByName(CSKConnection* connection, const WString& name, uint32_t* number) {
  platform::CriticalSection* table = table_lock();
  if (table == nullptr) return SKR_FAILED;
  platform::ScopedLock hold(*table);

  // Insertions and erasures happen only under the port-table lock, which is held: the map can be
  // read without the lookup lock.
  for (const auto& entry : map()) {
    COpenPort* port = entry.second;
    if (port->name() != name) continue;
    if (!port->AddMember(connection)) return SKR_INVALID_PARAMETER;
    *number = port->number();
    return SKR_SUCCESS;
  }

  // The smallest number that is neither in the table nor still being closed: a number whose last
  // member left is out of the table at once, but its stack instance stays open until that Close
  // has called the stack's Close, and a stack must never be opened twice under one number.
  uint32_t free_number = 1;
  while (map().count(free_number) != 0 || closing().count(free_number) != 0) ++free_number;

  COpenPort* port = HeapNew<COpenPort>(free_number);
  if (port == nullptr) return SKR_OUT_OF_MEMORY;
  port->AddMember(connection);
  port->stack_.Event = &PortAccess::EventSink;
  // The stack may raise events while it opens: the port is not in the table yet, so they find no
  // port and are dropped.
  const uint32_t result = OpenStack(free_number, View(name), &port->stack_);
  if (result != SKR_SUCCESS) {
    port->Release();
    return result;
  }
  port->name_ = name;
  {
    platform::ScopedLock lookup(lookup_lock());
    map().emplace(free_number, port);  // the table's reference is the one HeapNew made
  }
  *number = free_number;
  return SKR_SUCCESS;
}

uint32_t PortTable::Close(CSKConnection* connection, uint32_t number) {
  platform::CriticalSection* table = table_lock();
  if (table == nullptr) return SKR_INVALID_HANDLE;

  PortRef port;
  PortRef table_reference;  // set when this Close takes the port out of the table
  uint32_t result = SKR_SUCCESS;
  {
    platform::ScopedLock hold(*table);
    port = Find(number);
    if (!port) return SKR_INVALID_HANDLE;
    if (!port->RemoveMember(connection)) result = SKR_INVALID_HANDLE;
    // Members are added only under the port-table lock, so "none left" cannot change before the
    // port leaves the table.
    if (!port->HasMembers()) {
      platform::ScopedLock lookup(lookup_lock());
      map().erase(number);
      closing().insert(number);
      table_reference = PortRef::Adopt(port.get());
    }
  }

  PortAccess::Unlock(port.get(), connection);
  if (table_reference) {
    if (port->stack().Close != nullptr && number != 0) result = port->stack().Close(number);
    platform::ScopedLock hold(*table);
    closing().erase(number);
  }
  return result;
}

}  // namespace orlenda
