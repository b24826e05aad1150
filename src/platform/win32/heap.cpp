#include "platform/heap.h"

#include "platform/win32/windows.h"

namespace orlenda::platform {

void* HeapAllocZero(std::size_t bytes) {
  return HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, bytes == 0 ? 1 : bytes);
}

void* HeapAllocUninitialized(std::size_t bytes) { return HeapAlloc(GetProcessHeap(), 0, bytes == 0 ? 1 : bytes); }

void HeapFreeBlock(void* block) {
  if (block != nullptr) HeapFree(GetProcessHeap(), 0, block);
}

}  // namespace orlenda::platform
