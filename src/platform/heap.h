// The process heap: every allocation of the system comes from here.
#pragma once

#include <cstddef>

namespace orlenda::platform {

// Allocates `bytes` zero-filled bytes (HeapAlloc with HEAP_ZERO_MEMORY on Windows, calloc on POSIX).
// Returns nullptr when the heap cannot satisfy the request. A request of 0 bytes returns a valid block.
void* HeapAllocZero(std::size_t bytes);

// Frees a block from HeapAllocZero. nullptr is ignored.
void HeapFreeBlock(void* block);

}  // namespace orlenda::platform
