#include "platform/sync.h"

#include <cstdlib>
#include <new>

#include "platform/heap.h"
#include "platform/win32/event_handle.h"
#include "platform/win32/windows.h"

namespace orlenda::platform {

struct CriticalSection::Impl {
  CRITICAL_SECTION section;
};

CriticalSection::CriticalSection() {
  void* block = HeapAllocZero(sizeof(Impl));
  if (block == nullptr) std::abort();  // a lock that cannot exist is fatal, as on POSIX
  impl_ = new (block) Impl();
  InitializeCriticalSection(&impl_->section);
}

CriticalSection::~CriticalSection() {
  DeleteCriticalSection(&impl_->section);
  impl_->~Impl();
  HeapFreeBlock(impl_);
}

void CriticalSection::Enter() { EnterCriticalSection(&impl_->section); }
void CriticalSection::Leave() { LeaveCriticalSection(&impl_->section); }
bool CriticalSection::TryEnter() { return TryEnterCriticalSection(&impl_->section) != FALSE; }

// The event object itself; Impl only exists so the header needs no Windows types.
struct Event::Impl {
  HANDLE handle;
};

Event::Event(ResetMode mode, bool initially_set) {
  void* block = HeapAllocZero(sizeof(Impl));
  if (block == nullptr) std::abort();
  impl_ = new (block) Impl();
  impl_->handle = CreateEventW(nullptr, mode == ResetMode::kManual ? TRUE : FALSE,
                               initially_set ? TRUE : FALSE, nullptr);
  if (impl_->handle == nullptr) std::abort();
}

Event::~Event() {
  CloseHandle(impl_->handle);
  impl_->~Impl();
  HeapFreeBlock(impl_);
}

HANDLE EventHandle(const Event& event) { return event.impl()->handle; }

void Event::Set() { SetEvent(impl_->handle); }
void Event::Reset() { ResetEvent(impl_->handle); }

bool Event::Wait(uint32_t timeout_ms) {
  return WaitForSingleObject(impl_->handle, timeout_ms) == WAIT_OBJECT_0;
}

int WaitForAny(Event* const* events, std::size_t count, uint32_t timeout_ms) {
  if (count == 0 || count > kMaxWaitObjects) return kWaitTimeout;
  HANDLE handles[kMaxWaitObjects];
  for (std::size_t i = 0; i < count; ++i) handles[i] = events[i]->impl()->handle;
  DWORD result = WaitForMultipleObjects(static_cast<DWORD>(count), handles, FALSE, timeout_ms);
  if (result >= WAIT_OBJECT_0 && result < WAIT_OBJECT_0 + count) {
    return static_cast<int>(result - WAIT_OBJECT_0);
  }
  return kWaitTimeout;
}

}  // namespace orlenda::platform
