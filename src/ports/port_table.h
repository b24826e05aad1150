// The process-wide table of open ports: port number -> COpenPort, numbers the smallest positive
// integers free at the time of the open (so they are reused). A number is taken from the moment
// its open begins until the stack's Close for it has returned, though the port leaves the table
// before that call; a port whose stack is still opening is in the table (its name and number are
// reserved) but no lookup finds it.
//
// Two locks guard the table:
//  - the port-table lock serialises the changes (a new port's reservation and publication, a join,
//    the Close that takes the last member out) and the power transition's choice of ports. It is
//    created and deleted with the configuration (CConfiguration::Load and Unload), which takes it
//    before its own lock. It is never held while a component is called: a new port's stack opens
//    between the reservation and the publication with the lock left, and an Open of the same name
//    meanwhile waits for that open to end (outside the lock) and then looks again.
//  - the lookup lock, a leaf, guards the map for the lookup by number and the locked-port query;
//    insert and erase hold both.
//
// Lock order (whole port layer): a connection's open lock (its Open and Close run one at a time),
// the port-table lock, a port's lock-queue lock, a port's members lock; the lookup lock and a
// connection's state lock are leaves. The configuration lock is never held while any of these is
// taken. Lifetime of the ports, walks and counted calls: open_port.h.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/heap.h"
#include "common/wide_string.h"
#include "platform/sync.h"
#include "ports/open_port.h"

namespace orlenda {

class CSKConnection;

// An open name taken apart: "PORT/MEMBER?KEY" or "PORT/MEMBER?NAME=KEY". `name` is the whole name
// to open (slashes at either end stripped), `port` the text before its first "/" and `member` the
// text after it (empty when there is no "/").
struct PortName {
  WString name;
  WString port;
  WString member;
  WString key;
};
PortName ParsePortName(WStringView requested);

class PortTable {
 public:
  // The configuration's hooks. Delete expects no open port.
  static void CreateLock();
  static void DeleteLock();

  // The port with this number and a reference to it, or an empty reference. FindReserved also
  // finds a port whose stack is still opening.
  static PortRef Find(uint32_t number);
  static PortRef FindReserved(uint32_t number);

  // Opens `name` for `connection`: joins the open port of that exact name, or makes a new one with
  // the smallest free number and opens its stack. On success `*number` is the port's number.
  // SKR_INVALID_PARAMETER when the connection is a member already, SKR_OUT_OF_MEMORY, the stack's
  // result, SKR_INVALID_HANDLE when a component asks for its own port from inside that port's
  // Open, or SKR_FAILED when no configuration is loaded.
  static uint32_t OpenByName(CSKConnection* connection, const WString& name, uint32_t* number);

  // Close of `connection` on port `number`: leaves the members, gives up the lock, and with the
  // last member takes the port out of the table, waits for the component calls in progress for it
  // and closes the stack.
  static uint32_t Close(CSKConnection* connection, uint32_t number);

  // Whether any port's lock queue starts with a connection (the suspend guard's question).
  static bool IsAnyPortLocked();

  // A power broadcast: 4 suspends, 6, 7 and 18 resume; a second resume in a row is not passed on.
  static void PowerTransition(uint32_t event);

  // Number of open ports (tests).
  static std::size_t Size();

 private:
  using Map = HeapMap<uint32_t, COpenPort*>;  // each entry holds one reference
  // Null while no configuration is loaded.
  static platform::CriticalSection* table_lock();
  static platform::CriticalSection& lookup_lock();
  // Whether `port` is in the table and open (not closing, not still opening).
  static bool IsPublished(const COpenPort* port);
  static PortRef Lookup(uint32_t number, bool opening_too);
  static Map& map();
  // Numbers out of the table whose stack's Close has not returned yet; under the port-table lock.
  static HeapSet<uint32_t>& closing();
};

// The process-wide lock-state-changed event (auto-reset): set every time a port becomes locked or
// unlocked, by a lock or unlock request or because its holder closed or lost its connection, so
// that whoever keeps the system awake re-reads IsAnyPortLocked.
platform::Event& LockStateChangedEvent();

}  // namespace orlenda
