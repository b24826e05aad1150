// The blob: a reference-counted byte block on the process heap. Layout, shared with component
// modules: a 64-bit reference count changed atomically, a 64-bit byte count, then the bytes.
// Whoever drops the last reference frees the block.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace orlenda {

struct Blob {
  std::atomic<uint64_t> references;
  uint64_t size;
  // The bytes follow the header directly.
  uint8_t* data() { return reinterpret_cast<uint8_t*>(this + 1); }
  const uint8_t* data() const { return reinterpret_cast<const uint8_t*>(this + 1); }
};
static_assert(sizeof(Blob) == 16, "blob header is two 64-bit fields");

// A new zero-filled blob of `size` bytes with one reference, or nullptr when memory is short.
Blob* BlobCreate(uint64_t size);
// The same, its bytes left undefined for the caller to fill at once.
Blob* BlobCreateUninitialized(uint64_t size);
// A new blob holding a copy of `size` bytes at `data` (data may be null when size is 0; null data
// with a nonzero size gives nullptr, as does a shortage of memory).
Blob* BlobCopy(const void* data, uint64_t size);
void BlobAddRef(Blob* blob);
// Drops one reference; frees the blob with the last. nullptr is ignored.
void BlobRelease(Blob* blob);

// An owning reference: copying adds a reference, destruction drops one.
class BlobRef {
 public:
  BlobRef() = default;
  // Takes over a reference the caller already holds (e.g. from BlobCreate).
  static BlobRef Adopt(Blob* blob) { BlobRef r; r.blob_ = blob; return r; }
  // Adds a reference of its own.
  static BlobRef Share(Blob* blob) { if (blob) BlobAddRef(blob); return Adopt(blob); }

  BlobRef(const BlobRef& other) : blob_(other.blob_) { if (blob_) BlobAddRef(blob_); }
  BlobRef(BlobRef&& other) noexcept : blob_(other.blob_) { other.blob_ = nullptr; }
  BlobRef& operator=(BlobRef other) noexcept { Swap(other); return *this; }
  ~BlobRef() { BlobRelease(blob_); }

  void Swap(BlobRef& other) noexcept { Blob* t = blob_; blob_ = other.blob_; other.blob_ = t; }
  // Gives the reference to the caller.
  Blob* Release() { Blob* b = blob_; blob_ = nullptr; return b; }

  Blob* get() const { return blob_; }
  explicit operator bool() const { return blob_ != nullptr; }
  uint64_t size() const { return blob_ ? blob_->size : 0; }
  uint8_t* data() const { return blob_ ? blob_->data() : nullptr; }

 private:
  Blob* blob_ = nullptr;
};

// The DWORD parameter: a blob of exactly 4 bytes holding one unsigned 32-bit value (little-endian).
Blob* DwordBlobCreate(uint32_t value);
// Reads the value of a DWORD parameter; false (and *value untouched) unless the blob exists and
// holds exactly 4 bytes and value is not null.
bool DwordBlobRead(const Blob* blob, uint32_t* value);

}  // namespace orlenda
