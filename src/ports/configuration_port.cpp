// The configuration port's four entry points and the objects behind its opens.
//
// One ConfigurationObject per open, kept by port number in a map under a lock of its own. The
// map holds shared references: a request runs on its object without the map lock, and a Close
// that comes in meanwhile only drops the map's reference, so the object lives until the request
// is done with it.
#include "ports/configuration_port.h"

#include <memory>

#include "common/blob.h"
#include "common/heap.h"
#include "components/component.h"
#include "platform/sync.h"
#include "ports/configuration_requests.h"
#include "skein/protocol.h"

namespace orlenda {
namespace {

using ObjectRef = std::shared_ptr<ConfigurationObject>;

struct ObjectMap {
  platform::CriticalSection lock;
  HeapMap<uint32_t, ObjectRef> objects;
};

// Made on first use and never destroyed: requests of a port being torn down during shutdown
// still find it.
ObjectMap& Objects() {
  static ObjectMap* map = HeapNew<ObjectMap>();
  return *map;
}

// A new object for `port`; SKR_INVALID_PARAMETER when the number has one already (a port number
// is open once), SKR_OUT_OF_MEMORY when it cannot be made.
uint32_t CreateObject(uint32_t port, WStringView name) {
  ObjectRef object;
  try {
    object = std::allocate_shared<ConfigurationObject>(HeapAllocator<ConfigurationObject>(), port, name);
  } catch (const std::bad_alloc&) {
    return SKR_OUT_OF_MEMORY;
  }
  ObjectMap& map = Objects();
  platform::ScopedLock hold(map.lock);
  if (!map.objects.emplace(port, std::move(object)).second) return SKR_INVALID_PARAMETER;
  return SKR_SUCCESS;
}

ObjectRef FindObject(uint32_t port) {
  ObjectMap& map = Objects();
  platform::ScopedLock hold(map.lock);
  const auto found = map.objects.find(port);
  return found == map.objects.end() ? ObjectRef() : found->second;
}

// Entry 0. The port layer opens the configuration port through OpenConfigurationPort; this entry
// does the same for a caller that has only the table, with the path as the name.
uint32_t SKEIN_CALL ConfigOpen(uint32_t port, SkString* path, const SkLayerTable* layers) {
  const WString name = FromSkString(path);
  SkStringFree(path);
  return CreateObject(port, View(name));
}

// Entry 1: the object of the port goes.
uint32_t SKEIN_CALL ConfigClose(uint32_t port) {
  ObjectRef object;  // released after the map lock is left
  ObjectMap& map = Objects();
  platform::ScopedLock hold(map.lock);
  const auto found = map.objects.find(port);
  if (found == map.objects.end()) return SKR_INVALID_HANDLE;
  object = std::move(found->second);
  map.objects.erase(found);
  return SKR_SUCCESS;
}

// Entry 2. The configuration port takes requests only: data written to it has nowhere to go, so
// a write is a request the port does not support. Nothing is written.
uint32_t SKEIN_CALL ConfigWrite(uint32_t port, SkBlob* data, uint32_t* written) {
  const BlobRef owned = BlobRef::Adopt(FromSkBlob(data));
  if (written != nullptr) *written = 0;
  if (!FindObject(port)) return SKR_INVALID_HANDLE;
  return SKR_INVALID_PARAMETER;
}

// Entry 3. The input's reference belongs to this call and is dropped when the request ends,
// whatever its outcome.
uint32_t SKEIN_CALL ConfigIoctl(uint32_t port, uint32_t code, SkBlob* input, SkBlob** output) {
  const BlobRef owned = BlobRef::Adopt(FromSkBlob(input));
  const ObjectRef object = FindObject(port);
  if (!object) return SKR_INVALID_HANDLE;
  return object->Request(code, owned, reinterpret_cast<Blob**>(output));
}

}  // namespace

uint32_t OpenConfigurationPort(uint32_t port, WStringView name, SkComponentTable* table) {
  const uint32_t result = CreateObject(port, name);
  if (result != SKR_SUCCESS) return result;
  table->Open = ConfigOpen;
  table->Close = ConfigClose;
  table->Write = ConfigWrite;
  table->Ioctl = ConfigIoctl;
  return SKR_SUCCESS;
}

}  // namespace orlenda
