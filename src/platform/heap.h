// The process heap: every allocation of the system comes from here.
#pragma once

#include <cstddef>
#include <new>

namespace orlenda::platform {

// Allocates `bytes` zero-filled bytes (HeapAlloc with HEAP_ZERO_MEMORY on Windows, calloc on POSIX).
// Returns nullptr when the heap cannot satisfy the request. A request of 0 bytes returns a valid block.
void* HeapAllocZero(std::size_t bytes);

// Allocates `bytes` bytes whose content is undefined, for a block the caller fills at once (HeapAlloc
// without HEAP_ZERO_MEMORY, malloc): the zero fill would be thrown away. nullptr when short.
void* HeapAllocUninitialized(std::size_t bytes);
// Frees a block from HeapAllocZero or HeapAllocUninitialized. nullptr is ignored.
void HeapFreeBlock(void* block);

// One object of the platform bodies on the process heap, default-constructed; nullptr when the
// heap is short. DeleteHeapObject destroys and frees it and ignores nullptr.
template <class T>
T* NewHeapObject() {
  void* memory = HeapAllocZero(sizeof(T));
  return memory == nullptr ? nullptr : new (memory) T();
}

template <class T>
void DeleteHeapObject(T* object) {
  if (object == nullptr) return;
  object->~T();
  HeapFreeBlock(object);
}

}  // namespace orlenda::platform
