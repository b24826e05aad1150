#include "common/blob.h"

#include <cstring>
#include <limits>
#include <new>

#include "platform/heap.h"

namespace orlenda {

namespace {

// A blob whose bytes are zero (`zeroed`) or left for the caller to fill.
Blob* MakeBlob(uint64_t size, bool zeroed) {
  // The header and the bytes come in one block, so the total must fit a size_t without wrapping.
  if (size > std::numeric_limits<std::size_t>::max() - sizeof(Blob)) return nullptr;
  const std::size_t bytes = sizeof(Blob) + static_cast<std::size_t>(size);
  void* block = zeroed ? platform::HeapAllocZero(bytes) : platform::HeapAllocUninitialized(bytes);
  if (block == nullptr) return nullptr;
  Blob* blob = new (block) Blob();
  blob->references.store(1, std::memory_order_relaxed);
  blob->size = size;
  return blob;
}

}  // namespace

Blob* BlobCreate(uint64_t size) { return MakeBlob(size, true); }

Blob* BlobCreateUninitialized(uint64_t size) { return MakeBlob(size, false); }

Blob* BlobCopy(const void* data, uint64_t size) {
  if (data == nullptr && size != 0) return nullptr;
  Blob* blob = MakeBlob(size, false);  // every byte is written below
  if (blob != nullptr && size != 0) std::memcpy(blob->data(), data, static_cast<std::size_t>(size));
  return blob;
}

void BlobAddRef(Blob* blob) {
  // Taking a new reference needs no ordering: the caller already holds one, so the blob is alive.
  if (blob != nullptr) blob->references.fetch_add(1, std::memory_order_relaxed);
}

void BlobRelease(Blob* blob) {
  if (blob == nullptr) return;
  // Release publishes this holder's writes to the bytes; acquire on the last drop makes every
  // holder's writes visible before the block goes back to the heap.
  if (blob->references.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    blob->~Blob();
    platform::HeapFreeBlock(blob);
  }
}

Blob* DwordBlobCreate(uint32_t value) {
  Blob* blob = BlobCreate(4);
  if (blob == nullptr) return nullptr;
  // Byte by byte, so the stored order is little-endian whatever the host is.
  const uint8_t bytes[4] = {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8),
                            static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 24)};
  std::memcpy(blob->data(), bytes, sizeof(bytes));
  return blob;
}

bool DwordBlobRead(const Blob* blob, uint32_t* value) {
  if (blob == nullptr || value == nullptr || blob->size != 4) return false;
  uint8_t bytes[4];
  std::memcpy(bytes, blob->data(), sizeof(bytes));
  *value = static_cast<uint32_t>(bytes[0]) | static_cast<uint32_t>(bytes[1]) << 8 |
           static_cast<uint32_t>(bytes[2]) << 16 | static_cast<uint32_t>(bytes[3]) << 24;
  return true;
}

}  // namespace orlenda
