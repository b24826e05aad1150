// A stand-in for the service over TCP, for the client library's tests: it accepts clients on a
// free loopback port and answers every request frame with whatever bytes `answer` makes of it
// (well formed or not; nothing at all is silence, kHangUp closes the connection). It never pings. Serves on a thread of its own
// until destroyed.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>

#include "platform/socket.h"
#include "support/wire_client.h"

namespace orlenda::testing {

constexpr char kHangUp[] = "<hang up>";

class ScriptedServer {
 public:
  using Answer = std::function<std::string(const Frame& request)>;

  explicit ScriptedServer(Answer answer);
  ~ScriptedServer();
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  uint16_t port() const { return port_; }

 private:
  void Serve();

  Answer answer_;
  platform::Socket listener_;
  uint16_t port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

// A reply frame as the service would build it: the request's code and tag, the result, then `tail`.
inline std::string ReplyFrame(const Frame& request, uint32_t result, const std::string& tail = std::string()) {
  return RequestFrame(request.code, request.tag, DwordBytes(result) + tail);
}

}  // namespace orlenda::testing
