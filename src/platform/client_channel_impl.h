// The body behind a ClientChannel, for the platform bodies: the socket body is shared (TCP on both
// platforms, the local pipe on POSIX); the Windows local pipe has a body of its own.
#pragma once

#include "platform/client_channel.h"
#include "platform/socket.h"
#include "platform/sync.h"

namespace orlenda::platform {

class ClientChannel::Impl {
 public:
  virtual ~Impl() = default;
  // Sends all of the message; the caller holds send_lock.
  virtual uint32_t SendWhole(const void* data, std::size_t size, uint32_t limit_ms) = 0;
  virtual Received Receive(uint32_t timeout_ms, const uint8_t** bytes, std::size_t* size) = 0;
  virtual void Wake() = 0;
  virtual void Shutdown() = 0;

  CriticalSection send_lock;  // one message at a time
};

// A body on a connected socket (made non-blocking here); nullptr (the socket closed) on failure,
// with the error in `*error`.
ClientChannel::Impl* NewSocketChannel(Socket socket, uint32_t* error);

// The platform's: connects to the local pipe `name`.
uint32_t ConnectLocalChannel(const char16_t* name, uint32_t timeout_ms, ClientChannel::Impl** out);

}  // namespace orlenda::platform
