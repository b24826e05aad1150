// ClientChannel: what both platforms share, and the socket body (TCP everywhere, the local pipe on
// POSIX). The socket is non-blocking: the reader waits for it and for a wake-up socket together,
// and senders wait for room with a limit (SendAll).
#include "platform/client_channel.h"

#include <atomic>
#include <utility>

#include "platform/client_channel_impl.h"
#include "platform/errors.h"
#include "platform/heap.h"

namespace orlenda::platform {
namespace {

class SocketChannel final : public ClientChannel::Impl {
 public:
  uint32_t Init(Socket socket) {
    socket_ = std::move(socket);
    const uint32_t error = SetNonBlocking(socket_);
    return error != kErrorSuccess ? error : wake_.Open();
  }

  uint32_t SendWhole(const void* data, std::size_t size, uint32_t limit_ms) override {
    if (closed_.load(std::memory_order_acquire)) return kErrorNotConnected;
    std::size_t sent = 0;
    return SendAll(socket_, data, size, limit_ms, &sent);
  }

  ClientChannel::Received Receive(uint32_t timeout_ms, const uint8_t** bytes, std::size_t* size) override {
    *size = 0;
    if (closed_.load(std::memory_order_acquire)) return ClientChannel::Received::kClosed;
    SocketWait waits[2] = {{socket_.handle(), true, false, false, false}, {wake_.handle(), true, false, false, false}};
    std::size_t ready = 0;
    if (WaitSockets(waits, 2, timeout_ms, &ready) != kErrorSuccess) return ClientChannel::Received::kClosed;
    if (waits[1].readable) wake_.Drain();
    if (closed_.load(std::memory_order_acquire)) return ClientChannel::Received::kClosed;
    if (!waits[0].readable) return ClientChannel::Received::kNothing;
    const uint32_t error = platform::Receive(socket_, buffer_, sizeof(buffer_), size);
    if (error == kErrorWouldBlock || error == kErrorInterrupted) return ClientChannel::Received::kNothing;
    if (error != kErrorSuccess || *size == 0) return ClientChannel::Received::kClosed;
    *bytes = buffer_;
    return ClientChannel::Received::kBytes;
  }

  void Wake() override { wake_.Wake(); }

  void Shutdown() override {
    closed_.store(true, std::memory_order_release);
    socket_.ShutdownBoth();
    wake_.Wake();
  }

 private:
  Socket socket_;
  WakeSocket wake_;
  std::atomic<bool> closed_{false};
  uint8_t buffer_[kClientChannelBuffer];
};

}  // namespace

ClientChannel::Impl* NewSocketChannel(Socket socket, uint32_t* error) {
  SocketChannel* channel = NewHeapObject<SocketChannel>();
  if (channel == nullptr) {
    *error = kErrorNotEnoughMemory;
    return nullptr;
  }
  *error = channel->Init(std::move(socket));
  if (*error != kErrorSuccess) {
    DeleteHeapObject(channel);
    return nullptr;
  }
  return channel;
}

ClientChannel::~ClientChannel() { DeleteHeapObject(impl_); }

uint32_t ClientChannel::ConnectLocal(const char16_t* name, uint32_t timeout_ms) {
  if (impl_ != nullptr) return kErrorInvalidParameter;
  tcp_ = false;
  return ConnectLocalChannel(name, timeout_ms, &impl_);
}

uint32_t ClientChannel::ConnectTcp(const char* host, uint16_t port, uint32_t timeout_ms) {
  if (impl_ != nullptr) return kErrorInvalidParameter;
  Socket socket;
  uint32_t error = platform::ConnectTcp(host, port, timeout_ms, &socket);
  if (error != kErrorSuccess) return error;
  impl_ = NewSocketChannel(std::move(socket), &error);
  tcp_ = impl_ != nullptr;
  return error;
}

uint32_t ClientChannel::Send(const void* data, std::size_t size, uint32_t limit_ms, bool only_if_idle) {
  if (impl_ == nullptr) return kErrorInvalidHandle;
  if (only_if_idle) {
    if (!impl_->send_lock.TryEnter()) return kErrorWouldBlock;
  } else {
    impl_->send_lock.Enter();
  }
  const uint32_t error = impl_->SendWhole(data, size, limit_ms);
  impl_->send_lock.Leave();
  return error;
}

ClientChannel::Received ClientChannel::Receive(uint32_t timeout_ms, const uint8_t** bytes, std::size_t* size) {
  *size = 0;
  if (impl_ == nullptr) return Received::kClosed;
  return impl_->Receive(timeout_ms, bytes, size);
}

void ClientChannel::Wake() {
  if (impl_ != nullptr) impl_->Wake();
}

void ClientChannel::Shutdown() {
  if (impl_ != nullptr) impl_->Shutdown();
}

}  // namespace orlenda::platform
