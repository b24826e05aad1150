// The process-heap allocator for the standard containers, and heap-backed container aliases.
#pragma once

#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <new>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/heap.h"

namespace orlenda {

template <class T>
struct HeapAllocator {
  using value_type = T;

  HeapAllocator() noexcept = default;
  template <class U>
  HeapAllocator(const HeapAllocator<U>&) noexcept {}

  T* allocate(std::size_t n) {
    if (n > static_cast<std::size_t>(-1) / sizeof(T)) throw std::bad_array_new_length();
    void* p = platform::HeapAllocZero(n * sizeof(T));
    if (p == nullptr) throw std::bad_alloc();
    return static_cast<T*>(p);
  }
  void deallocate(T* p, std::size_t) noexcept { platform::HeapFreeBlock(p); }

  template <class U>
  bool operator==(const HeapAllocator<U>&) const noexcept { return true; }
  template <class U>
  bool operator!=(const HeapAllocator<U>&) const noexcept { return false; }
};

template <class T>
using HeapVector = std::vector<T, HeapAllocator<T>>;
template <class T>
using HeapDeque = std::deque<T, HeapAllocator<T>>;
template <class K, class V, class Less = std::less<K>>
using HeapMap = std::map<K, V, Less, HeapAllocator<std::pair<const K, V>>>;
template <class K, class Less = std::less<K>>
using HeapSet = std::set<K, Less, HeapAllocator<K>>;

// Single objects on the process heap: HeapNew constructs, HeapDelete destroys and frees, and
// HeapUnique owns one. HeapNew returns nullptr when memory is short.
template <class T, class... A>
T* HeapNew(A&&... args) {
  void* p = platform::HeapAllocZero(sizeof(T));
  return p == nullptr ? nullptr : new (p) T(std::forward<A>(args)...);
}

template <class T>
void HeapDelete(T* object) {
  if (object == nullptr) return;
  object->~T();
  platform::HeapFreeBlock(object);
}

struct HeapDeleter {
  template <class T>
  void operator()(T* object) const { HeapDelete(object); }
};
template <class T>
using HeapUnique = std::unique_ptr<T, HeapDeleter>;

// Narrow (UTF-8) text on the process heap.
using HeapString = std::basic_string<char, std::char_traits<char>, HeapAllocator<char>>;

}  // namespace orlenda
