// The pipe read loop on POSIX: one poll over the listening socket, an eventfd that Shutdown makes
// readable for good, and every writer's socket.
#include "platform/pipe_read_loop.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <vector>

#include "platform/errors.h"
#include "platform/heap.h"
#include "platform/posix/errno_map.h"
#include "platform/posix/unix_listen_socket.h"
#include "platform/thread.h"

namespace orlenda::platform {
namespace {

constexpr std::size_t kReadBytes = 64 * 1024;

struct Writer {
  int fd;
  void* context;
};

}  // namespace

struct PipeReadLoop::Impl {
  UnixListener listener;
  std::vector<Writer> writers;
  std::vector<uint8_t> buffer;

  ~Impl() {
    for (const Writer& w : writers) close(w.fd);
  }

  // Takes every writer waiting in the backlog.
  void AcceptAll(Handler* handler) {
    for (;;) {
      const int fd = accept4(listener.socket().fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
      if (fd < 0) {
        if (errno == EINTR || errno == ECONNABORTED) continue;
        return;  // EAGAIN: nobody else waits; anything else is retried at the next poll
      }
      void* context = handler->OnConnect();
      if (context == nullptr) {
        close(fd);
        continue;
      }
      writers.push_back({fd, context});
    }
  }

  enum class Read { kBytes, kNothingYet, kEnded };

  // One read of the writer's bytes; kEnded when its stream has ended (or failed): it is done.
  Read ReadOnce(Handler* handler, const Writer& w) {
    for (;;) {
      const ssize_t got = recv(w.fd, buffer.data(), buffer.size(), 0);
      if (got > 0) {
        handler->OnBytes(w.context, buffer.data(), static_cast<std::size_t>(got));
        return Read::kBytes;
      }
      if (got < 0 && errno == EINTR) continue;
      return got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) ? Read::kNothingYet : Read::kEnded;
    }
  }

  void Drop(Handler* handler, std::size_t index) {
    handler->OnDisconnect(writers[index].context);
    close(writers[index].fd);
    writers.erase(writers.begin() + static_cast<std::ptrdiff_t>(index));
  }

  // The end: the writers' sending side is shut first, so that a write after this point fails
  // instead of vanishing with the socket, and what they had sent is read out.
  void Finish(Handler* handler) {
    AcceptAll(handler);
    for (const Writer& w : writers) shutdown(w.fd, SHUT_RD);
    while (!writers.empty()) {
      // After SHUT_RD a drained socket reads as its end; "nothing yet" ends the reading as well.
      while (ReadOnce(handler, writers.back()) == Read::kBytes) {
      }
      Drop(handler, writers.size() - 1);
    }
    listener.socket().Close();
    handler->OnTick();
  }
};

PipeReadLoop::~PipeReadLoop() {
  DeleteHeapObject(impl_);
  impl_ = nullptr;
}

uint32_t PipeReadLoop::Listen(const char16_t* name, PipeMode /*mode*/) {
  if (impl_ != nullptr) return kErrorInvalidParameter;  // one pipe per loop
  Impl* impl = NewHeapObject<Impl>();
  if (impl == nullptr) return kErrorNotEnoughMemory;
  impl->buffer.resize(kReadBytes);
  const uint32_t error = impl->listener.Open(name);
  if (error != kErrorSuccess) {
    DeleteHeapObject(impl);
    return error;
  }
  impl_ = impl;
  return kErrorSuccess;
}

uint32_t PipeReadLoop::Run(Handler* handler, uint32_t tick_ms) {
  if (impl_ == nullptr) return kErrorInvalidHandle;
  Impl& loop = *impl_;
  std::vector<pollfd> fds;
  uint32_t last_tick = TickCountMs();
  uint32_t error = kErrorSuccess;
  while (!loop.listener.shut_down()) {
    fds.clear();
    fds.push_back({loop.listener.wake_fd(), POLLIN, 0});
    fds.push_back({loop.listener.socket().fd(), POLLIN, 0});
    for (const Writer& w : loop.writers) fds.push_back({w.fd, POLLIN, 0});
    const uint32_t since_tick = TickCountMs() - last_tick;
    const int timeout = since_tick >= tick_ms ? 0 : static_cast<int>(tick_ms - since_tick);
    const int ready = poll(fds.data(), fds.size(), timeout);
    if (ready < 0 && errno != EINTR) {
      error = LastErrno();
      break;
    }
    if (ready > 0) {
      // Writers first, by their place in fds, before AcceptAll adds new ones behind them.
      for (std::size_t i = fds.size(); i-- > 2;) {
        if (fds[i].revents != 0 && loop.ReadOnce(handler, loop.writers[i - 2]) == Impl::Read::kEnded) {
          loop.Drop(handler, i - 2);
        }
      }
      if (fds[1].revents != 0) loop.AcceptAll(handler);
    }
    if (TickCountMs() - last_tick >= tick_ms) {
      handler->OnTick();
      last_tick = TickCountMs();
    }
  }
  loop.Finish(handler);
  return error;
}

void PipeReadLoop::Shutdown() {
  if (impl_ != nullptr) impl_->listener.Shutdown();
}

}  // namespace orlenda::platform
