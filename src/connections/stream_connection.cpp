#include "connections/stream_connection.h"

#include <cstring>

#include "common/heap.h"
#include "common/result_codes.h"
#include "common/wide_string.h"
#include "connections/request_pool.h"
#include "platform/thread.h"
#include "skein/protocol.h"

namespace orlenda {
namespace {

constexpr uint32_t kPollMs = 10;
constexpr std::size_t kBack = FrameReader::kBackPointer;

uint32_t U32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
         static_cast<uint32_t>(p[3]) << 24;
}

uint64_t U64(const uint8_t* p) { return U32(p) | static_cast<uint64_t>(U32(p + 4)) << 32; }

void PutU32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}

void PutU64(uint8_t* p, uint64_t v) {
  PutU32(p, static_cast<uint32_t>(v));
  PutU32(p + 4, static_cast<uint32_t>(v >> 32));
}

// A message: the header with `length` (clamped to 32 bits), `code` and `tag`, then `word` and
// `tail`. Null when memory is short.
BlobRef Message(uint32_t code, uint64_t tag, uint32_t word, const void* tail, std::size_t tail_size) {
  const uint64_t total = SK_FRAME_REPLY_SIZE + static_cast<uint64_t>(tail_size);
  BlobRef message = BlobRef::Adopt(BlobCreate(total));
  if (!message) return message;
  uint8_t* p = message.data();
  PutU32(p, total > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<uint32_t>(total));
  PutU32(p + 4, code);
  PutU64(p + 8, tag);
  PutU32(p + 16, word);
  if (tail_size != 0) std::memcpy(p + SK_FRAME_REPLY_SIZE, tail, tail_size);
  return message;
}

}  // namespace

struct CSKStreamConnection::Request {
  CSKStreamConnection* connection;
  BlobRef copy;
  uint32_t length;
};

CSKStreamConnection::CSKStreamConnection() : reader_(this) {}

CSKStreamConnection::~CSKStreamConnection() { Shutdown(); }

void CSKStreamConnection::Shutdown() {
  if (shut_.exchange(true, std::memory_order_acq_rel)) return;
  WaitIdle();
  if (port_number() != 0) Close();
  // An event push that passed its check before the shutdown may have started a send meanwhile;
  // after the Close none can.
  WaitIdle();
}

void CSKStreamConnection::WaitIdle() const {
  while (active_.load(std::memory_order_acquire) != 0) platform::SleepMs(kPollMs);
}

bool CSKStreamConnection::Receive(const uint8_t* bytes, std::size_t size) { return reader_.Feed(bytes, size, this); }

void CSKStreamConnection::OnFrame(BlobRef copy, uint32_t length) {
  active_.fetch_add(1, std::memory_order_acq_rel);
  auto* request = HeapNew<Request>();
  if (request != nullptr) {
    request->connection = this;
    request->copy = std::move(copy);
    request->length = length;
    if (RequestPool::Run(&RequestMain, request)) return;
    copy = std::move(request->copy);
    HeapDelete(request);
  }
  // No thread (or no memory) for the request: it is answered as failed at once.
  if (copy && copy.size() >= kBack + SK_FRAME_HEADER_SIZE) {
    const uint8_t* frame = copy.data() + kBack;
    Reply(U32(frame + 4), U64(frame + 8), SKR_SYSTEM_ERROR, nullptr, 0);
  }
  active_.fetch_sub(1, std::memory_order_acq_rel);
}

void CSKStreamConnection::RequestMain(void* argument) {
  auto* request = static_cast<Request*>(argument);
  CSKStreamConnection* self = request->connection;
  self->Serve(request->copy, request->length);
  HeapDelete(request);
  // The last touch of the connection: its Shutdown may go on from here.
  self->active_.fetch_sub(1, std::memory_order_acq_rel);
}

void CSKStreamConnection::Serve(const BlobRef& copy, uint32_t length) {
  const uint8_t* frame = copy.data() + kBack;
  const uint32_t code = U32(frame + 4);
  const uint64_t tag = U64(frame + 8);
  // A frame that could not be held whole: the stream stayed in step, the request is refused.
  if (copy.size() != static_cast<uint64_t>(length) + kBack + FrameReader::kSlack) {
    Reply(code, tag, SKR_TRUNCATED, nullptr, 0);
    return;
  }
  // The copy ends in 16 zero bytes, so reads past a short body find zeros, never another frame.
  const uint8_t* body = frame + SK_FRAME_HEADER_SIZE;
  switch (code) {
    case SK_FRAME_OPEN: {
      // The name runs to its 16-bit terminator (at the latest in the zero bytes behind the frame).
      WString name;
      const uint8_t* end = copy.data() + copy.size();
      for (const uint8_t* p = body; p + 1 < end; p += 2) {
        const char16_t unit = static_cast<char16_t>(p[0] | p[1] << 8);
        if (unit == 0) break;
        name.push_back(unit);
      }
      Reply(code, tag, Open(&name), nullptr, 0);
      return;
    }
    case SK_FRAME_CLOSE:
      Reply(code, tag, Close(), nullptr, 0);
      return;
    case SK_FRAME_REGISTER:
      Reply(code, tag, RegisterCallback(U32(body)), nullptr, 0);
      return;
    case SK_FRAME_UNREGISTER:
      Reply(code, tag, UnregisterCallback(U32(body)), nullptr, 0);
      return;
    case SK_FRAME_WRITE: {
      const BlobRef data = BlobRef::Adopt(BlobCopy(body, length - SK_FRAME_HEADER_SIZE));
      uint32_t written = 0;
      const uint32_t result = data ? Write(data, &written) : SKR_OUT_OF_MEMORY;
      uint8_t tail[4];
      PutU32(tail, written);
      Reply(code, tag, result, tail, sizeof(tail));
      return;
    }
    case SK_FRAME_IOCTL: {
      const uint32_t control = U32(body);
      const uint32_t input_size = length > SK_FRAME_REPLY_SIZE ? length - SK_FRAME_REPLY_SIZE : 0;
      const BlobRef input = BlobRef::Adopt(BlobCopy(frame + SK_FRAME_REPLY_SIZE, input_size));
      BlobRef output;
      const uint32_t result = input ? Ioctl(control, input, &output) : SKR_OUT_OF_MEMORY;
      Reply(code, tag, result, output.data(), static_cast<std::size_t>(output.size()));
      return;
    }
    default:
      return;  // an unknown request gets no reply
  }
}

void CSKStreamConnection::Reply(uint32_t code, uint64_t tag, uint32_t result, const void* tail,
                                std::size_t tail_size) {
  BlobRef message = Message(code, tag, result, tail, tail_size);
  if (message) Send(std::move(message), true);
}

void CSKStreamConnection::PushEvent(uint32_t event, BlobRef data) {
  if (shut_.load(std::memory_order_acquire)) return;
  BlobRef message = Message(SK_FRAME_EVENT, 0, event, data.data(), static_cast<std::size_t>(data.size()));
  if (message) Send(std::move(message), false);
}

void CSKStreamConnection::Send(BlobRef message, bool write_own) {
  const uint64_t size = message.size();
  bool abandon = false;
  {
    platform::ScopedLock hold(send_lock_);
    if (broken_) return;
    if (!send_queue_.empty() && queued_bytes_ + size > kSendQueueBytes) {
      abandon = true;
      BreakLocked();
    } else {
      send_queue_.push_back(std::move(message));
      queued_bytes_ += size;
      if (sending_) return;  // the sender finds it
      sending_ = true;
    }
  }
  if (abandon) {
    Abandon();
  } else if (write_own) {
    Drain(true);
  } else {
    StartDrain();
  }
}

void CSKStreamConnection::BreakLocked() {
  broken_ = true;
  send_queue_.clear();
  queued_bytes_ = 0;
}

void CSKStreamConnection::StartDrain() {
  active_.fetch_add(1, std::memory_order_acq_rel);
  if (RequestPool::Run(&DrainMain, this)) return;
  active_.fetch_sub(1, std::memory_order_acq_rel);
  Drain(false);  // no thread to be had: this one sends rather than lose the messages
}

void CSKStreamConnection::DrainMain(void* self) {
  auto* connection = static_cast<CSKStreamConnection*>(self);
  connection->Drain(false);
  connection->active_.fetch_sub(1, std::memory_order_acq_rel);  // the last touch
}

void CSKStreamConnection::Drain(bool own_only) {
  for (bool first = true;; first = false) {
    BlobRef next;
    {
      platform::ScopedLock hold(send_lock_);
      if (send_queue_.empty()) {
        sending_ = false;
        return;
      }
      if (own_only && !first) break;  // what queued behind the reply goes on a pool thread
      next = std::move(send_queue_.front());
      send_queue_.pop_front();
      queued_bytes_ -= next.size();
    }
    if (!RawWrite(std::move(next))) {
      // The transport has given the client up; a later message could only tear the stream.
      platform::ScopedLock hold(send_lock_);
      BreakLocked();
      sending_ = false;
      return;
    }
  }
  StartDrain();
}

}  // namespace orlenda
