// The connection's port operations: Open, Close, Write and Ioctl, with their traces.
#include "common/result_codes.h"
#include "components/component.h"
#include "components/configuration.h"
#include "logging/log.h"
#include "ports/open_port.h"
#include "ports/port_table.h"
#include "ports/sk_connection.h"

namespace orlenda {
namespace {

constexpr uint32_t kTraceLevel = 4;
constexpr uint32_t kLock = 1;
constexpr uint32_t kUnlock = 2;

// Whether the properties store holds `member` as a group under `port`, compared code unit by code
// unit. Asked through the host service table, which reads the store under the configuration lock.
bool IsMemberName(const WString& port, const WString& member) {
  const SkHostTable* host = CConfiguration::host_table();
  if (host->EnumerateGroups == nullptr) return false;
  SkStringList* names = nullptr;
  if (!host->EnumerateGroups(ToSkString(View(port)), &names) || names == nullptr) {
    SkStringListFree(names);
    return false;
  }
  bool found = false;
  for (uint32_t i = 0; i < names->count && !found; ++i) {
    found = FromSkString(names->items[i]) == member;
  }
  SkStringListFree(names);
  return found;
}

}  // namespace

uint32_t CSKConnection::Open(WString* name) {
  platform::ScopedLock serial(open_lock_);
  WString requested;
  if (name != nullptr) requested.swap(*name);  // consumed whatever the outcome
  Log(kTraceLevel, u"-> %08x::Open(%d, %s)", trace_id(), port_number(), requested);
  if (port_number() != 0) {
    Log(kTraceLevel, u"<- %08x::Open(%d, %s) <SKR_INVALID_HANDLE>", trace_id(), port_number(), requested);
    return SKR_INVALID_HANDLE;
  }

  const PortName parsed = ParsePortName(View(requested));
  uint32_t result;
  uint32_t number = 0;
  if (!parsed.member.empty() && !IsMemberName(parsed.port, parsed.member)) {
    result = SKR_INVALID_SIZE;
  } else {
    result = PortTable::OpenByName(this, parsed.name, &number);
  }
  if (result == SKR_SUCCESS) {
    {
      platform::ScopedLock hold(state_lock_);
      access_key_ = parsed.key;
      member_name_ = parsed.member;
    }
    port_number_.store(number, std::memory_order_release);
  }
  Log(kTraceLevel, u"<- %08x::Open(%d, %s) <%08x>", trace_id(), port_number(), parsed.name, result);
  return result;
}

uint32_t CSKConnection::Close() {
  platform::ScopedLock serial(open_lock_);
  const uint32_t number = port_number();
  Log(kTraceLevel, u"-> %08x::Close(%d)", trace_id(), number);
  const uint32_t result = PortTable::Close(this, number);
  Log(kTraceLevel, u"<- %08x::Close(%d) <%08x>", trace_id(), number, result);
  {
    platform::ScopedLock hold(state_lock_);
    access_key_.clear();
    member_name_.clear();
  }
  lock_granted_.store(false, std::memory_order_release);
  port_number_.store(0, std::memory_order_release);
  return result;
}

uint32_t CSKConnection::Write(const BlobRef& data, uint32_t* written) {
  const uint32_t number = port_number();
  LogDataFormat(kTraceLevel, data.data(), TracedBytes(data), u"-> %08x::Write(%d)", trace_id(),
                number);
  uint32_t count = 0;
  uint32_t result;
  PortRef port = PortTable::Find(number);
  if (!port) {
    result = SKR_INVALID_HANDLE;
  } else if (port->suspended()) {
    result = SKR_SUSPENDED;
  } else {
    // Counted through the stack's Write: the last Close waits for it, nothing else does.
    CallScope call(port.get());
    if (!port->IsMember(this) || port->stack().Write == nullptr) {
      result = SKR_INVALID_HANDLE;
    } else {
      result = PortAccess::CheckWriteAccess(port.get(), this);
      if (result == SKR_SUCCESS) result = port->StackWrite(data, &count);
    }
  }
  if (written != nullptr) *written = count;
  Log(kTraceLevel, u"<- %08x::Write(%d, %d) <%08x>", trace_id(), number, count, result);
  return result;
}

uint32_t CSKConnection::Ioctl(uint32_t code, const BlobRef& input, BlobRef* output) {
  const uint32_t number = port_number();
  uint32_t value = 0;
  const bool dword = DwordBlobRead(input.get(), &value);
  if (dword) {
    Log(kTraceLevel, u"-> %08x::Ioctl(%d, %08x, %08x)", trace_id(), number, code, value);
  } else {
    LogDataFormat(kTraceLevel, input.data(), TracedBytes(input), u"-> %08x::Ioctl(%d, %08x)",
                  trace_id(), number, code);
  }

  BlobRef local_output;
  BlobRef* out = output != nullptr ? output : &local_output;
  uint32_t result;
  PortRef port = PortTable::Find(number);
  if (!port) {
    result = SKR_INVALID_HANDLE;
  } else if (code == SK_PORT_LOCK) {
    if (!dword) {
      result = SKR_INVALID_SIZE;
    } else if (value != kLock && value != kUnlock) {
      result = SKR_INVALID_PARAMETER;
    } else {
      // The lock queue tells the lock-state change itself, whatever changed it.
      result = value == kLock ? PortAccess::Lock(port.get(), this) : PortAccess::UnlockRequest(port.get(), this);
    }
  } else if (code == SK_PORT_NOTIFY) {
    PortAccess::SendToOthers(port.get(), this, SK_EVENT_NOTIFY, input);
    result = SKR_SUCCESS;
  } else if (code == SK_PORT_EXCLUSIVE) {
    if (!dword) {
      result = SKR_INVALID_SIZE;
    } else {
      result = PortAccess::Exclusive(port.get(), this, value);
    }
  } else {
    result = PortAccess::Route(port.get(), this, code, input, out);
  }

  uint32_t out_value = 0;
  if (DwordBlobRead(out->get(), &out_value)) {
    Log(kTraceLevel, u"<- %08x::Ioctl(%d, %08x, %08x) <%08x>", trace_id(), number, code, out_value, result);
  } else {
    LogDataFormat(kTraceLevel, out->data(), TracedBytes(*out), u"<- %08x::Ioctl(%d, %08x) <%08x>",
                  trace_id(), number, code, result);
  }
  return result;
}

}  // namespace orlenda
