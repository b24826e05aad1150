// The plain servers the broker is measured against: the same framing (the service's FrameReader)
// on the same transports, but every request is answered at once on the server's own thread,
// without request threads and without the port layer: SKR_SUCCESS, and for a Write the count of
// its bytes. The TCP one pings its clients after 500 ms of silence, as the transport wants. What
// the broker costs beyond them is its own.
#pragma once

#include <cstdint>
#include <memory>

namespace orlenda::bench {

class EchoServer {
 public:
  virtual ~EchoServer() = default;
  // The TCP echo listens on a free loopback port; the local echo on the pipe `name`.
  static std::unique_ptr<EchoServer> StartTcp();
  static std::unique_ptr<EchoServer> StartLocal(const char16_t* name);
  virtual uint16_t port() const = 0;  // TCP only
};

}  // namespace orlenda::bench
