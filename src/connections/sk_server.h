// SKServer: a listener for client connections (the pipe and TCP servers derive from it).
//
// Only the part the rest of the service calls is here so far: the settings notification, which
// the configuration port's SK_CONFIG_APPLY sends to every running server through the server
// registry (service/server_registry.h) so that it takes up changed settings. The dispatcher
// thread, the stop event and the connection list come with the transports.
#pragma once

#include <cstdint>

namespace orlenda {

class SKServer {
 public:
  SKServer() = default;
  virtual ~SKServer() = default;
  SKServer(const SKServer&) = delete;
  SKServer& operator=(const SKServer&) = delete;

  // Settings notification: reread the settings this server depends on and apply what changed.
  // Called from a request thread, with the server registry's lock held; an implementation must
  // not register or unregister servers from here. The result is not looked at by the registry.
  virtual uint32_t ApplySettings() = 0;
};

}  // namespace orlenda
