#include "connection.h"

#include <chrono>
#include <cstring>
#include <memory>
#include <new>

#include "platform/errors.h"
#include "platform/socket.h"
#include "platform/sync.h"

namespace orlenda::client {
namespace {

constexpr uint8_t kPing[4] = {0, 0, 0, 0};
// The reader looks again this soon when a ping is due but another thread is sending.
constexpr uint32_t kBusyRetryMs = 5;

SkClientOptions WithDefaults(const SkClientOptions& given) {
  SkClientOptions options = given;
  if (options.call_timeout_ms == 0) options.call_timeout_ms = SKC_DEFAULT_CALL_TIMEOUT_MS;
  if (options.connect_timeout_ms == 0) options.connect_timeout_ms = SKC_DEFAULT_CONNECT_TIMEOUT_MS;
  if (options.ping_interval_ms == 0) options.ping_interval_ms = SKC_DEFAULT_PING_INTERVAL_MS;
  if (options.keepalive_timeout_ms == 0) options.keepalive_timeout_ms = SKC_DEFAULT_KEEPALIVE_TIMEOUT_MS;
  if (options.max_reply_size == 0) options.max_reply_size = SKC_DEFAULT_MAX_REPLY_SIZE;
  if (options.max_reply_size < SK_FRAME_WRITE_REPLY_SIZE) options.max_reply_size = SK_FRAME_WRITE_REPLY_SIZE;
  return options;
}

}  // namespace

Connection::Connection(const SkClientOptions& options)
    : options_(WithDefaults(options)), parser_(options_.max_reply_size) {}

Connection::~Connection() {
  closing_.store(true, std::memory_order_release);
  channel_.Shutdown();
  reader_.Join();
  Lose(SKC_CONNECTION_LOST);  // nothing may wait any more (no call should be running now)
}

uint32_t Connection::ConnectLocal(const char16_t* pipe_name) {
  if (channel_.ConnectLocal(pipe_name, options_.connect_timeout_ms) != platform::kErrorSuccess) {
    return SKC_CANNOT_CONNECT;
  }
  return Start();
}

uint32_t Connection::ConnectTcp(const char* host, uint16_t port) {
  if (channel_.ConnectTcp(host, port, options_.connect_timeout_ms) != platform::kErrorSuccess) {
    return SKC_CANNOT_CONNECT;
  }
  return Start();
}

uint32_t Connection::Start() {
  last_send_.store(platform::TickCountMs(), std::memory_order_relaxed);
  last_receive_ = platform::TickCountMs();
  return reader_.Start(&Connection::ReaderThread, this) ? SKR_SUCCESS : SKC_OUT_OF_MEMORY;
}

uint32_t Connection::Call(uint32_t code, const void* head, std::size_t head_size, const void* body,
                          std::size_t body_size, Reply* reply) {
  if (reader_id_.load(std::memory_order_acquire) == platform::CurrentThreadId()) return SKC_WRONG_THREAD;
  const uint32_t was_lost = lost();
  if (was_lost != SKR_SUCCESS) return was_lost;
  const uint64_t total = uint64_t{SK_FRAME_HEADER_SIZE} + head_size + body_size;
  if (total > 0xFFFFFFFFu) return SKC_INVALID_ARGUMENT;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(options_.call_timeout_ms);

  // Not zero-filled: every byte is written below (a 64 KiB Write would pay for it twice).
  std::unique_ptr<uint8_t[]> frame(new (std::nothrow) uint8_t[static_cast<std::size_t>(total)]);
  if (!frame) return SKC_OUT_OF_MEMORY;
  const uint64_t tag = next_tag_.fetch_add(1, std::memory_order_relaxed);
  PutLe32(&frame[0], static_cast<uint32_t>(total));
  PutLe32(&frame[4], code);
  PutLe32(&frame[8], static_cast<uint32_t>(tag));
  PutLe32(&frame[12], static_cast<uint32_t>(tag >> 32));
  if (head_size != 0) std::memcpy(&frame[16], head, head_size);
  if (body_size != 0) std::memcpy(&frame[16 + head_size], body, body_size);

  Pending pending;
  pending.code = code;
  pending.reply = reply;
  {
    std::lock_guard<std::mutex> hold(mutex_);
    const uint32_t now_lost = lost();  // Lose fails only the calls it finds here
    if (now_lost != SKR_SUCCESS) return now_lost;
    pending_[tag] = &pending;
  }
  if (channel_.Send(frame.get(), static_cast<std::size_t>(total), options_.call_timeout_ms) == platform::kErrorSuccess) {
    last_send_.store(platform::TickCountMs(), std::memory_order_relaxed);
  } else {
    Lose(SKC_CONNECTION_LOST);  // part of the frame may have gone: the stream is out of step
  }
  std::unique_lock<std::mutex> hold(mutex_);
  if (!pending.changed.wait_until(hold, deadline, [&] { return pending.done; })) {
    pending_.erase(tag);  // a late reply finds no call and is dropped
    return SKC_TIMEOUT;
  }
  return reply->result;
}

void Connection::ReaderThread(void* self) { static_cast<Connection*>(self)->ReaderLoop(); }

void Connection::ReaderLoop() {
  reader_id_.store(platform::CurrentThreadId(), std::memory_order_release);
  while (!closing_.load(std::memory_order_acquire)) {
    uint32_t wait = platform::kInfinite;
    if (!KeepAlive(&wait)) {
      Lose(SKC_CONNECTION_LOST);
      return;
    }
    const uint8_t* bytes = nullptr;
    std::size_t size = 0;
    const auto received = channel_.Receive(wait, &bytes, &size);
    if (received == platform::ClientChannel::Received::kClosed) {
      Lose(SKC_CONNECTION_LOST);
      return;
    }
    if (received == platform::ClientChannel::Received::kNothing) continue;
    last_receive_ = platform::TickCountMs();
    if (!parser_.Feed(bytes, size, this)) {
      Lose(SKC_PROTOCOL_ERROR);
      return;
    }
  }
}

bool Connection::KeepAlive(uint32_t* wait_ms) {
  *wait_ms = platform::kInfinite;
  if (!channel_.is_tcp()) return true;  // the local pipe tells of a gone peer by itself
  const uint32_t now = platform::TickCountMs();
  const uint32_t silent = now - last_receive_;
  if (silent > options_.keepalive_timeout_ms) return false;
  uint32_t since_send = now - last_send_.load(std::memory_order_relaxed);
  uint32_t ping_due = 0;
  if (since_send >= options_.ping_interval_ms) {
    // Only when nobody else sends: a sender keeps the line busy anyway, and the reader must not
    // queue behind a large message.
    const uint32_t error = channel_.Send(kPing, sizeof(kPing), options_.keepalive_timeout_ms, true);
    if (error == platform::kErrorSuccess) {
      last_send_.store(now, std::memory_order_relaxed);
      ping_due = options_.ping_interval_ms;
    } else if (error == platform::kErrorWouldBlock) {
      ping_due = kBusyRetryMs;
    } else {
      return false;
    }
  } else {
    ping_due = options_.ping_interval_ms - since_send;
  }
  const uint32_t drop_due = options_.keepalive_timeout_ms - silent + 1;
  *wait_ms = ping_due < drop_due ? ping_due : drop_due;
  return true;
}

void Connection::Lose(uint32_t code) {
  uint32_t expected = SKR_SUCCESS;
  lost_.compare_exchange_strong(expected, code, std::memory_order_acq_rel);
  channel_.Shutdown();
  std::lock_guard<std::mutex> hold(mutex_);
  const uint32_t result = lost();
  for (auto& entry : pending_) {
    entry.second->done = true;
    entry.second->reply->result = result;
    entry.second->changed.notify_one();
  }
  pending_.clear();
}

void Connection::Complete(uint64_t tag, uint32_t code, uint32_t result, const uint8_t* data, std::size_t size) {
  std::lock_guard<std::mutex> hold(mutex_);
  const auto found = pending_.find(tag);
  if (found == pending_.end()) return;  // its call timed out, or a tag the client never sent
  Pending* pending = found->second;
  pending_.erase(found);
  if (pending->code != code) result = SKC_BAD_REPLY;
  pending->reply->result = result;
  if (result != SKC_BAD_REPLY && result != SKC_REPLY_TOO_LARGE && size != 0) {
    try {
      pending->reply->data.assign(data, data + size);
    } catch (const std::bad_alloc&) {
      pending->reply->result = SKC_OUT_OF_MEMORY;
    }
  }
  pending->done = true;
  pending->changed.notify_one();
}

void Connection::OnFrame(uint32_t code, uint64_t tag, const uint8_t* body, std::size_t size) {
  if (code == SK_FRAME_EVENT) {
    if (size >= 4 && options_.on_event != nullptr) {
      options_.on_event(options_.context, Le32(body), body + 4, static_cast<uint32_t>(size - 4));
    }
    return;
  }
  if (size < 4) {
    Complete(tag, code, SKC_BAD_REPLY, nullptr, 0);
    return;
  }
  Complete(tag, code, Le32(body), body + 4, size - 4);
}

void Connection::OnTooLarge(uint32_t code, uint64_t tag) {
  if (code != SK_FRAME_EVENT) Complete(tag, code, SKC_REPLY_TOO_LARGE, nullptr, 0);
}

}  // namespace orlenda::client
