// The server registry: the connection servers the service runs, so that a settings change made
// through the configuration port (SK_CONFIG_APPLY) reaches every one of them.
//
// The service start-up registers each server once it has started and unregisters it before it
// stops it; until the connection servers exist the registry stays empty and a notification does
// nothing. The registry does not own the servers.
//
// One lock of its own guards the list and is held while the servers are notified, so a server
// cannot be unregistered (and then destroyed) in the middle of its notification. It is a leaf
// lock apart from what a server's ApplySettings takes.
#pragma once

#include <cstddef>

#include "connections/sk_server.h"

namespace orlenda {

// Adds `server` (once: a second registration of the same server is ignored).
void RegisterServer(SKServer* server);
// Removes `server`; one that is not registered is ignored.
void UnregisterServer(SKServer* server);
// Calls ApplySettings of every registered server, in registration order.
void NotifyServersOfSettings();
// How many servers are registered.
std::size_t RegisteredServerCount();

}  // namespace orlenda
