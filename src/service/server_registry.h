// The server registry: the connection servers the service runs. It owns them from their
// registration to DestroyAllServers, and it is the port layer's settings listener, so that a
// settings change made through the configuration port (SK_CONFIG_APPLY) reaches every server.
//
// One lock guards the list. It is held while a server starts, while the servers are told of
// changed settings (so a server cannot be destroyed in the middle of its notification) and while
// they are destroyed; a server's destructor joins its dispatcher thread under it.
#pragma once

#include <cstddef>

#include "connections/sk_server.h"

namespace orlenda {

// Makes the registry ready and installs it as the settings listener.
void CreateServerRegistry();
// Adds `server` (once: a second registration of the same server only starts it again) and starts
// it; the registry owns it from now on. A server that cannot start stays registered, idle.
void RegisterServer(SKServer* server);
// Destroys every registered server in registration order (each stops first) and empties the
// registry; the settings listener is removed.
void DestroyAllServers();
// Tells every registered server, in registration order, to take up changed settings.
void NotifyServersOfSettings();
std::size_t RegisteredServerCount();

}  // namespace orlenda
