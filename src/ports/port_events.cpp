// The port's event sink, handed to the top of its stack, and the delivery of the port's own
// notices to its members.
#include "common/result_codes.h"
#include "components/component.h"
#include "logging/log.h"
#include "ports/open_port.h"
#include "ports/port_table.h"
#include "ports/sk_connection.h"

namespace orlenda {

namespace {

void Deliver(COpenPort* port, uint32_t event, const BlobRef& data) {
  if ((event & SK_EVENT_PORT_ONLY) != 0) {
    // Not a walk of the members: the lock-state change asks the stack, which may call back into
    // the service, and works on the lock queue under its own lock.
    if (event == SK_EVENT_LOCK_CHANGED) PortAccess::LockChanged(port);
    return;
  }
  port->ForEachMember(nullptr, [&](CSKConnection* member) { member->Event(event, data); });
}

}  // namespace

void SKEIN_CALL PortAccess::EventSink(uint32_t number, uint32_t event, SkBlob* data) {
  const BlobRef held = BlobRef::Adopt(FromSkBlob(data));  // the reference the stack handed up
  // The reference from the lookup keeps the port allocated even when its last member closes
  // meanwhile; the walk keeps the members it meets alive. A port still opening is found too: its
  // events wait until it is published.
  PortRef port = PortTable::FindReserved(number);
  if (!port || port->HoldEarlyEvent(event, held)) return;
  Deliver(port.get(), event, held);
}

void PortAccess::DeliverEarlyEvents(COpenPort* port) {
  HeapVector<COpenPort::EarlyEvent> batch;
  uint32_t dropped = 0;
  while (port->TakeEarlyEvents(&batch, &dropped)) {
    for (const COpenPort::EarlyEvent& e : batch) Deliver(port, e.event, e.data);
  }
  if (dropped != 0) {
    Log(0, u"-- COpenPort::Open(%d): %d events raised while the port opened were dropped (at most %d are held)",
        port->number(), dropped, static_cast<uint32_t>(COpenPort::kMaxEarlyEvents));
  }
}

void PortAccess::SendToOthers(COpenPort* port, CSKConnection* except, uint32_t event, const BlobRef& data) {
  port->ForEachMember(except, [&](CSKConnection* member) { member->Event(event, data); });
}

}  // namespace orlenda
