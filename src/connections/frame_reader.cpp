#include "connections/frame_reader.h"

#include <algorithm>
#include <cstring>

#include "common/result_codes.h"
#include "logging/log.h"
#include "platform/heap.h"
#include "skein/protocol.h"

namespace orlenda {
namespace {

constexpr uint32_t kLengthBytes = 4;
constexpr uint32_t kFailureLevel = 0;

uint32_t ReadU32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
         static_cast<uint32_t>(p[3]) << 24;
}

}  // namespace

FrameReader::~FrameReader() { platform::HeapFreeBlock(buffer_); }

uint32_t FrameReader::LengthField() const { return ReadU32(frame()); }

std::size_t FrameReader::StoredBytes() const {
  // The length field is always stored, also in a block whose capacity reads as 0.
  return capacity_ == 0 ? kLengthBytes : std::min(received_, capacity_);
}

bool FrameReader::Regrow(std::size_t capacity, std::size_t keep) {
  auto* block = static_cast<uint8_t*>(platform::HeapAllocZero(kBackPointer + capacity + kSlack));
  if (block == nullptr) return false;
  std::memcpy(block, &owner_, sizeof(owner_) < kBackPointer ? sizeof(owner_) : kBackPointer);
  if (buffer_ != nullptr && keep != 0) std::memcpy(block + kBackPointer, frame(), keep);
  platform::HeapFreeBlock(buffer_);
  buffer_ = block;
  return true;
}

bool FrameReader::Feed(const uint8_t* bytes, std::size_t size, Sink* sink) {
  while (size > 0) {
    if (buffer_ == nullptr) {
      if (!Regrow(kFirstCapacity, 0)) return true;  // the rest of the chunk is dropped
      capacity_ = kFirstCapacity;
    }

    if (received_ < kLengthBytes) {
      const std::size_t n = std::min<std::size_t>(kLengthBytes - received_, size);
      std::memcpy(frame() + received_, bytes, n);
      received_ += static_cast<uint32_t>(n);
      bytes += n;
      size -= n;
      if (received_ < kLengthBytes) continue;
      const uint32_t length = LengthField();
      if (length == 0) {  // a keep-alive
        received_ = 0;
        continue;
      }
      if (length < SK_FRAME_HEADER_SIZE) {
        Log(kFailureLevel, u"-- CSKStreamConnection::Receive frame length %u is shorter than a header", length);
        received_ = 0;
        return false;
      }
      // First step of the growth: a cleared block for 2·L frame bytes whose capacity reads as 0.
      if (length > capacity_ && length <= SK_FRAME_MAX_SIZE && Regrow(2 * static_cast<std::size_t>(length), 0)) {
        capacity_ = 0;
        frame()[0] = static_cast<uint8_t>(length);
        frame()[1] = static_cast<uint8_t>(length >> 8);
        frame()[2] = static_cast<uint8_t>(length >> 16);
        frame()[3] = static_cast<uint8_t>(length >> 24);
      }
      if (size == 0) break;
    }

    const uint32_t length = LengthField();
    if (length > capacity_) {
      if (length > SK_FRAME_MAX_SIZE) {
        if (received_ == kLengthBytes) {
          Log(kFailureLevel, u"-- CSKStreamConnection::Receive frame of %u bytes is over the limit of %u: dropped",
              length, SK_FRAME_MAX_SIZE);
        }
      } else if (Regrow(2 * static_cast<std::size_t>(length), StoredBytes())) {
        // Second step: the capacity is twice the length field of the new block.
        capacity_ = 2 * LengthField();
      } else {
        Log(kFailureLevel, u"Unable to reallocate read buffer");
      }
    }
    const std::size_t n = std::min<std::size_t>(length - received_, size);
    if (length > capacity_) {
      if (received_ < capacity_) std::memcpy(frame() + received_, bytes, std::min<std::size_t>(n, capacity_ - received_));
    } else {
      std::memcpy(frame() + received_, bytes, n);
    }
    received_ += static_cast<uint32_t>(n);
    bytes += n;
    size -= n;
    if (received_ == length) Deliver(sink);
  }
  return true;
}

void FrameReader::Deliver(Sink* sink) {
  const uint32_t length = LengthField();
  const std::size_t kept = std::min(length, capacity_);
  Blob* copy = BlobCreateUninitialized(kBackPointer + kept + kSlack);
  received_ = 0;
  if (copy == nullptr) return;  // memory is short: the request is lost, the stream stays in step
  std::memcpy(copy->data(), buffer_, kBackPointer + kept);
  // The copy's 16 bytes behind the frame are zero, whatever an earlier, longer frame left there.
  std::memset(copy->data() + kBackPointer + kept, 0, kSlack);
  sink->OnFrame(BlobRef::Adopt(copy), length);
}

}  // namespace orlenda
