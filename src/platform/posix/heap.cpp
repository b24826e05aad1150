#include "platform/heap.h"

#include <cstdlib>

namespace orlenda::platform {

void* HeapAllocZero(std::size_t bytes) {
  // calloc(0) may return nullptr; a request for nothing still gets a block of its own.
  return std::calloc(bytes == 0 ? 1 : bytes, 1);
}

void* HeapAllocUninitialized(std::size_t bytes) { return std::malloc(bytes == 0 ? 1 : bytes); }

void HeapFreeBlock(void* block) { std::free(block); }

}  // namespace orlenda::platform
