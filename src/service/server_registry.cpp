#include "service/server_registry.h"

#include <algorithm>

#include "common/heap.h"
#include "platform/sync.h"
#include "ports/settings_notice.h"

namespace orlenda {
namespace {

struct Registry {
  platform::CriticalSection lock;
  HeapVector<SKServer*> servers;
};

// Made on first use and never destroyed, so that a late notice still finds it.
Registry& TheRegistry() {
  static Registry* registry = HeapNew<Registry>();
  return *registry;
}

}  // namespace

void CreateServerRegistry() {
  TheRegistry();
  SetSettingsListener(&NotifyServersOfSettings);
}

void RegisterServer(SKServer* server) {
  if (server == nullptr) return;
  Registry& registry = TheRegistry();
  platform::ScopedLock hold(registry.lock);
  if (std::find(registry.servers.begin(), registry.servers.end(), server) == registry.servers.end()) {
    registry.servers.push_back(server);
  }
  server->Start();
}

void DestroyAllServers() {
  SetSettingsListener(nullptr);
  Registry& registry = TheRegistry();
  platform::ScopedLock hold(registry.lock);
  for (SKServer* server : registry.servers) HeapDelete(server);
  registry.servers.clear();
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
