// CConfiguration: the configuration of the service.
//
// The process-wide part is class-wide state, one set per process:
//  - the configuration lock, which serialises every access to the properties store made on behalf
//    of components and port stacks (one store call per hold);
//  - the properties store over "Orlenda.properties" (values changed at run time);
//  - the configuration store over "Orlenda.configuration" (component list, stack definitions);
//    nothing changes it after Load, but the store keeps a cursor that every read moves, so reads
//    from request threads are serialised on the configuration lock as well;
//  - the component map, name -> owned CComponent, ordered by UTF-16 code units;
//  - the host service table handed to every module, null until the properties store is open and
//    null again after Unload.
//
// Load and Unload run on the service's control thread while no client is served and take no lock.
// After Load the component map and the configuration store are read-only.
//
// Lock order: the port-table lock of the port handle layer is taken before the configuration
// lock. The configuration lock is a leaf: nothing else is acquired while it is held, and no
// component's code ever runs under it (a module that calls the host table from inside one of its
// own operations must be able to do so from any thread).
//
// An object of the class stands for one open of the built-in configuration port; the settings
// schema is handed out through it (LoadResourceXML).
#pragma once

#include <cstdint>
#include <optional>

#include "common/heap.h"
#include "common/wide_string.h"
#include "components/component.h"
#include "platform/sync.h"
#include "settings/property_handler.h"
#include "skein/component.h"

namespace orlenda {

class CConfiguration {
 public:
  using ComponentMap = HeapMap<WString, HeapUnique<CComponent>, std::less<>>;

  // Opens both stores and loads every component the configuration names, in the order of the
  // "/components/" children. True when all of it succeeded; on any failure everything done so far
  // is undone (Unload) and the result is false. Call once, on an unloaded configuration.
  static bool Load();
  // Unloads and frees every component (lowest name first), closes the properties store and then
  // the configuration store, clears the host service table and deletes the lock. Safe to call on
  // an unloaded configuration.
  static void Unload();

  // Runs `call(CPropertyHandler&)` on the properties store holding the configuration lock for
  // exactly that call, and returns what it returns; false without calling when the store is not
  // open. `call` must make one store call and must not call into a component.
  template <class Call>
  static bool WithProperties(Call&& call) {
    return WithStore(properties_, call);
  }
  // The same for one read of the configuration store (which nothing changes after Load).
  template <class Call>
  static bool WithConfiguration(Call&& call) {
    return WithStore(configuration_, call);
  }

  // The loaded component of that name, owned by the map; null when there is none.
  static CComponent* FindComponent(WStringView name);
  static const ComponentMap& components() { return components_; }
  // The table handed to the modules; all entries null while unloaded.
  static const SkHostTable* host_table() { return &host_table_; }

  // The resource RT_HTML `id` of this executable, UTF-8 bytes converted to wide text (up to its
  // first NUL), into `*xml`. SKR_SUCCESS; SKR_SYSTEM_ERROR when the resource cannot be found or the
  // text cannot be converted (both traced); SKR_FAILED for an empty resource; SKR_OUT_OF_MEMORY.
  uint32_t LoadResourceXML(uint32_t id, WString* xml);

 private:
  template <class Call>
  static bool WithStore(CPropertyHandler* const& store, Call& call) {
    if (!lock_) return false;
    platform::ScopedLock hold(*lock_);
    if (store == nullptr) return false;
    return call(*store);
  }

  static std::optional<platform::CriticalSection> lock_;
  static CPropertyHandler* properties_;
  static CPropertyHandler* configuration_;
  static ComponentMap components_;
  static SkHostTable host_table_;
};

// host_table.cpp: fills the nine entries of the host service table. Entries 0-7 apply the store
// operation of the same name to the properties store under the configuration lock; entry 8 is
// EnumeratePort. Each entry frees the strings and releases the blob it is handed, and creates the
// strings, lists and blobs it hands back (the caller frees them).
void FillHostTable(SkHostTable* table);

}  // namespace orlenda
