#include "ports/server_registry.h"

#include <algorithm>

#include "common/heap.h"
#include "platform/sync.h"

namespace orlenda {
namespace {

struct Registry {
  platform::CriticalSection lock;
  HeapVector<SKServer*> servers;
};

// Made on first use, so that a registration from any static initialiser finds it ready; never
// destroyed, so that a server unregistering itself late in shutdown still finds it.
Registry& TheRegistry() {
  static Registry* registry = HeapNew<Registry>();
  return *registry;
}

}  // namespace

void RegisterServer(SKServer* server) {
  if (server == nullptr) return;
  Registry& registry = TheRegistry();
  platform::ScopedLock hold(registry.lock);
  if (std::find(registry.servers.begin(), registry.servers.end(), server) == registry.servers.end()) {
    registry.servers.push_back(server);
  }
}

void UnregisterServer(SKServer* server) {
  Registry& registry = TheRegistry();
  platform::ScopedLock hold(registry.lock);
  registry.servers.erase(std::remove(registry.servers.begin(), registry.servers.end(), server),
                         registry.servers.end());
}

void NotifyServersOfSettings() {
  Registry& registry = TheRegistry();
  platform::ScopedLock hold(registry.lock);
  for (SKServer* server : registry.servers) server->ApplySettings();
}

std::size_t RegisteredServerCount() {
  Registry& registry = TheRegistry();
  platform::ScopedLock hold(registry.lock);
  return registry.servers.size();
}

}  // namespace orlenda
