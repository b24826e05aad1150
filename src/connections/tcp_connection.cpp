#include "connections/tcp_connection.h"

#include "common/result_codes.h"
#include "connections/tcp_server.h"
#include "platform/errors.h"
#include "platform/thread.h"

namespace orlenda {
namespace {

constexpr uint32_t kLost = SKR_SUSPENDED;  // the value the dispatcher reads as "lost"
constexpr uint8_t kPing[4] = {0, 0, 0, 0};

}  // namespace

CTCPConnection::CTCPConnection(platform::Socket socket, uint32_t ping_interval, uint32_t keepalive_timeout,
                               TCPServer* server, uint32_t peer)
    : socket_(std::move(socket)),
      server_(server),
      peer_(peer),
      last_send_(platform::TickCountMs()),
      last_receive_(platform::TickCountMs()),
      ping_interval_(ping_interval),
      keepalive_timeout_(keepalive_timeout) {}

CTCPConnection::~CTCPConnection() {
  Shutdown();  // no request, no event may write after this
  socket_.Close();
}

void CTCPConnection::SetTiming(uint32_t ping_interval, uint32_t keepalive_timeout) {
  ping_interval_.store(ping_interval, std::memory_order_relaxed);
  keepalive_timeout_.store(keepalive_timeout, std::memory_order_relaxed);
}

uint32_t CTCPConnection::MillisecondsUntilDue(uint32_t now) const {
  const uint32_t since_send = now - last_send_.load(std::memory_order_relaxed);
  const uint32_t since_receive = now - last_receive_;
  const uint32_t ping = ping_interval_.load(std::memory_order_relaxed);
  const uint32_t keepalive = keepalive_timeout_.load(std::memory_order_relaxed);
  // Due once the silence is over the limit (strictly), so one millisecond past it.
  const uint32_t ping_due = since_send > ping ? 0 : ping - since_send + 1;
  const uint32_t drop_due = since_receive > keepalive ? 0 : keepalive - since_receive + 1;
  return ping_due < drop_due ? ping_due : drop_due;
}

void CTCPConnection::Abandon() {
  MarkLost();
  socket_.ShutdownBoth();  // a send waiting for room fails now rather than at the time-out
}

void CTCPConnection::MarkLost() {
  if (!lost_.exchange(true, std::memory_order_acq_rel)) server_->Wake();
}

uint32_t CTCPConnection::Poll(PollReason reason, uint8_t* buffer) {
  if (lost_.load(std::memory_order_acquire)) return kLost;
  const uint32_t now = platform::TickCountMs();
  if (reason == kReadable) {
    std::size_t fed = 0;
    for (;;) {
      std::size_t total = 0;
      while (total < kReceiveBuffer) {
        std::size_t got = 0;
        if (platform::Receive(socket_, buffer + total, kReceiveBuffer - total, &got) !=
                platform::kErrorSuccess ||
            got == 0) {
          break;
        }
        total += got;
      }
      if (total == 0) return fed == 0 ? kLost : SKR_SUCCESS;  // nothing at all: the peer is gone
      last_receive_ = now;
      if (!Receive(buffer, total)) return kLost;
      fed += total;
      if (total < kReceiveBuffer || fed >= kReceivePerPass) return SKR_SUCCESS;
    }
  }

  if (now - last_send_.load(std::memory_order_relaxed) > ping_interval_.load(std::memory_order_relaxed)) {
    // A ping only when nobody is sending (that writer keeps the line busy anyway) and never with a
    // wait: the dispatcher serves every other client meanwhile.
    if (send_lock_.TryEnter()) {
      bool ok = true;
      if (ping_left_ == 0) ping_left_ = sizeof(kPing);
      ok = FinishPing(0);
      send_lock_.Leave();
      if (!ok) return kLost;
    }
    last_send_.store(now, std::memory_order_relaxed);
  }
  if (now - last_receive_ > keepalive_timeout_.load(std::memory_order_relaxed)) return kLost;
  return SKR_SUCCESS;
}

bool CTCPConnection::FinishPing(uint32_t limit_ms) {
  while (ping_left_ != 0) {
    std::size_t sent = 0;
    const uint32_t error =
        platform::SendAll(socket_, kPing + sizeof(kPing) - ping_left_, ping_left_, limit_ms, &sent);
    ping_left_ -= static_cast<uint32_t>(sent);
    if (error == platform::kErrorSuccess) return true;
    // No room now: the rest goes before the next message, or with the next tick.
    if (error == platform::kErrorTimedOut && limit_ms == 0) return true;
    return false;
  }
  return true;
}

bool CTCPConnection::RawWrite(BlobRef message) {
  platform::ScopedLock hold(send_lock_);
  if (lost_.load(std::memory_order_acquire)) return false;
  const uint32_t limit = keepalive_timeout_.load(std::memory_order_relaxed);
  last_send_.store(platform::TickCountMs(), std::memory_order_relaxed);
  std::size_t sent = 0;
  if (!FinishPing(limit) || platform::SendAll(socket_, message.data(), static_cast<std::size_t>(message.size()), limit,
                                              &sent) != platform::kErrorSuccess) {
    MarkLost();
    return false;
  }
  last_send_.store(platform::TickCountMs(), std::memory_order_relaxed);
  return true;
}

}  // namespace orlenda
