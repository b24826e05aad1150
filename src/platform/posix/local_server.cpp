// The local pipe's server end on POSIX: a Unix stream socket, and one poll over it, a wake-up pipe
// and every client. A stream socket has no message boundaries, so writers take turns: a channel's
// send lock keeps each message whole.
#include "platform/local_server.h"

#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <new>
#include <vector>

#include "platform/errors.h"
#include "platform/heap.h"
#include "platform/posix/unix_listen_socket.h"
#include "platform/socket.h"

namespace orlenda::platform {
namespace {

constexpr std::size_t kReadBytes = 4096;
constexpr int kLongestWaitMs = 1000;


}  // namespace

struct LocalChannel {
  Socket socket;
  CriticalSection send_lock;
  std::atomic<bool> lost{false};
  WakeSocket* wake = nullptr;
  void* context = nullptr;
};

struct LocalServer::Impl {
  WakeSocket wake;
  bool wake_open = false;
};

LocalServer::LocalServer() : impl_(NewHeapObject<Impl>()) {
  if (impl_ != nullptr) impl_->wake_open = impl_->wake.Open() == kErrorSuccess;
}

LocalServer::~LocalServer() { DeleteHeapObject(impl_); }

uint32_t LocalServer::InstanceMode() { return 0; }

void LocalServer::Wake() {
  if (impl_ != nullptr && impl_->wake_open) impl_->wake.Wake();
}

namespace {

LocalChannel* NewChannel(Socket socket, WakeSocket* wake) {
  LocalChannel* channel = NewHeapObject<LocalChannel>();
  if (channel == nullptr) return nullptr;
  channel->socket = std::move(socket);
  channel->wake = wake;
  return channel;
}

// Reads what a readable client sent. False when it is gone (or its handler refused the bytes).
bool ReadClient(LocalChannel* channel, LocalServer::Handler* handler) {
  uint8_t buffer[kReadBytes];
  std::size_t got = 0;
  const uint32_t error = Receive(channel->socket, buffer, sizeof(buffer), &got);
  if (error == kErrorWouldBlock) return true;
  if (error != kErrorSuccess || got == 0) return false;
  return handler->OnBytes(channel->context, buffer, got);
}

}  // namespace

void LocalServer::Run(const char16_t* name, Event* stop, Handler* handler) {
  UnixListenSocket listener;
  const uint32_t opened = impl_ == nullptr ? kErrorNotEnoughMemory : listener.Open(name);
  if (opened != kErrorSuccess) {
    handler->OnFailure(
        opened == kErrorAccessDenied ? LocalServerFailure::kUnsafeFolder : LocalServerFailure::kCreateInstance, opened);
    handler->OnFailure(LocalServerFailure::kTerminated, opened);
    return;
  }
  std::vector<LocalChannel*> clients;  // malloc is the process heap on POSIX
  std::vector<pollfd> fds;
  while (!stop->Wait(0)) {
    fds.clear();
    fds.push_back(pollfd{impl_->wake_open ? static_cast<int>(impl_->wake.handle()) : -1, POLLIN, 0});
    fds.push_back(pollfd{listener.fd(), POLLIN, 0});
    for (LocalChannel* client : clients) fds.push_back(pollfd{static_cast<int>(client->socket.handle()), POLLIN, 0});
    if (poll(fds.data(), fds.size(), impl_->wake_open ? kLongestWaitMs : 100) < 0 && errno != EINTR) {
      handler->OnFailure(LocalServerFailure::kTerminated, MapErrno(errno));
      return;
    }
    if (fds[0].revents != 0) impl_->wake.Drain();

    // Clients first (the new ones are not in this poll yet), dropping those gone or failed.
    std::size_t kept = 0;
    for (std::size_t i = 0; i < clients.size(); ++i) {
      LocalChannel* client = clients[i];
      bool alive = !client->lost.load(std::memory_order_acquire);
      if (alive && fds[2 + i].revents != 0) alive = ReadClient(client, handler);
      if (alive) {
        clients[kept++] = client;
      } else {
        client->lost.store(true, std::memory_order_release);
        handler->OnLost(client->context);
      }
    }
    clients.resize(kept);

    if (fds[1].revents != 0) {
      for (;;) {  // every client that is waiting
        const int fd = accept4(listener.fd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) break;
        LocalChannel* channel = NewChannel(Socket(static_cast<SocketHandle>(fd)), &impl_->wake);
        if (channel == nullptr) continue;  // the socket closed with it
        channel->context = handler->OnConnect(channel);
        if (channel->context == nullptr) {
          CloseLocalChannel(channel);
        } else {
          clients.push_back(channel);
        }
      }
    }
  }
}

uint32_t WriteLocalChannel(LocalChannel* channel, const void* data, std::size_t size, uint32_t limit_ms) {
  ScopedLock hold(channel->send_lock);
  if (channel->lost.load(std::memory_order_acquire)) return kErrorPipeNotConnected;
  std::size_t sent = 0;
  const uint32_t error = SendAll(channel->socket, data, size, limit_ms, &sent);
  if (error != kErrorSuccess) {
    // A message cut short would tear the stream: the client is dropped.
    channel->lost.store(true, std::memory_order_release);
    channel->wake->Wake();
  }
  return error;
}

void AbandonLocalChannel(LocalChannel* channel) {
  if (channel->lost.exchange(true, std::memory_order_acq_rel)) return;
  channel->socket.ShutdownBoth();  // a send waiting for room fails now
  channel->wake->Wake();
}

void CloseLocalChannel(LocalChannel* channel) {
  if (channel == nullptr) return;
  channel->socket.ShutdownBoth();
  DeleteHeapObject(channel);
}

}  // namespace orlenda::platform
