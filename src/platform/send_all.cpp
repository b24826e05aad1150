// SendAll: the same on both platforms, on top of SendSome and WaitSockets.
#include "platform/errors.h"
#include "platform/socket.h"
#include "platform/sync.h"
#include "platform/thread.h"

namespace orlenda::platform {

uint32_t SendAll(const Socket& socket, const void* data, std::size_t size, uint32_t limit_ms, std::size_t* sent) {
  const auto* bytes = static_cast<const uint8_t*>(data);
  *sent = 0;
  uint32_t start = TickCountMs();
  while (*sent < size) {
    std::size_t n = 0;
    const uint32_t error = SendSome(socket, bytes + *sent, size - *sent, &n);
    if (error == kErrorSuccess) {
      *sent += n;
      start = TickCountMs();  // the limit is on a wait without progress
      continue;
    }
    if (error != kErrorWouldBlock) return error;
    const uint32_t spent = TickCountMs() - start;
    if (spent >= limit_ms) return kErrorTimedOut;
    SocketWait wait{socket.handle(), false, true, false, false};
    std::size_t ready = 0;
    const uint32_t waited = WaitSockets(&wait, 1, limit_ms - spent, &ready);
    if (waited != kErrorSuccess) return waited;
  }
  return kErrorSuccess;
}

}  // namespace orlenda::platform
