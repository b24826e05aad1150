// CPipeServer: serves local clients over the pipe "skein" (Windows "\\.\pipe\skein", on POSIX the
// Unix socket "<run dir>/skein"); CPipeConnection is one such client. Everything of one server,
// connecting, reading and dropping lost clients, happens on its dispatcher thread
// (platform::LocalServer); replies and events are written by the connection's sender (see
// CSKStreamConnection).
//
// A write that makes no progress for kWriteLimitMs (a client that stopped reading) fails and the
// client is dropped.
#pragma once

#include <cstdint>

#include "connections/sk_server.h"
#include "connections/stream_connection.h"
#include "platform/local_server.h"
#include "skein/protocol.h"

namespace orlenda {

class CPipeConnection : public CSKStreamConnection {
 public:
  static constexpr uint32_t kWriteLimitMs = 5000;

  explicit CPipeConnection(platform::LocalChannel* channel);
  ~CPipeConnection() override;
  bool RawWrite(BlobRef message) override;
  void Abandon() override;

 private:
  platform::LocalChannel* channel_;
};

class CPipeServer : public SKServer, private platform::LocalServer::Handler {
 public:
  // `name` without the system's prefix; the service uses SKEIN_PIPE_NAME.
  explicit CPipeServer(const char16_t* name = u"" SKEIN_PIPE_NAME);
  ~CPipeServer() override;

  void ConnectionDispatcher() override;
  uint32_t ApplySettings() override { return 0; }  // the pipe has no settings
  uint32_t Stop() override;

 private:
  void* OnConnect(platform::LocalChannel* channel) override;
  bool OnBytes(void* context, const uint8_t* bytes, std::size_t size) override;
  void OnLost(void* context) override;
  void OnFailure(platform::LocalServerFailure what, uint32_t error) override;

  const char16_t* name_;
  platform::LocalServer local_;
};

}  // namespace orlenda
