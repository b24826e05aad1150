// The local pipe's client end on POSIX: a Unix stream socket, served by the shared socket body.
#include <utility>

#include "platform/client_channel_impl.h"
#include "platform/errors.h"

namespace orlenda::platform {

uint32_t ConnectLocalChannel(const char16_t* name, uint32_t /*timeout_ms: a Unix socket never waits*/,
                             ClientChannel::Impl** out) {
  Socket socket;
  uint32_t error = ConnectLocal(name, &socket);
  if (error != kErrorSuccess) return error;
  *out = NewSocketChannel(std::move(socket), &error);
  return error;
}

}  // namespace orlenda::platform
