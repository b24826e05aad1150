#include "platform/thread.h"

#include <new>

#include "platform/heap.h"
#include "platform/win32/windows.h"

namespace orlenda::platform {
namespace {

// What the new thread needs to know; it frees the block as soon as it has read it.
struct StartBlock {
  Thread::Entry entry;
  void* arg;
};

DWORD WINAPI Trampoline(void* block) {
  auto* start = static_cast<StartBlock*>(block);
  StartBlock copy = *start;
  start->~StartBlock();
  HeapFreeBlock(start);
  copy.entry(copy.arg);
  return 0;
}

// A new thread running entry(arg); its handle, or null when the system refuses.
HANDLE StartThread(Thread::Entry entry, void* arg) {
  void* memory = HeapAllocZero(sizeof(StartBlock));
  if (memory == nullptr) return nullptr;
  auto* block = new (memory) StartBlock{entry, arg};
  HANDLE handle = CreateThread(nullptr, 0, Trampoline, block, 0, nullptr);
  if (handle == nullptr) {
    block->~StartBlock();
    HeapFreeBlock(block);
  }
  return handle;
}

}  // namespace

Thread::~Thread() { Join(); }

bool Thread::Start(Entry entry, void* arg) {
  if (handle_ != 0) return false;
  HANDLE handle = StartThread(entry, arg);
  if (handle == nullptr) return false;
  handle_ = reinterpret_cast<uintptr_t>(handle);
  return true;
}

void Thread::Join() {
  if (handle_ == 0) return;
  HANDLE handle = reinterpret_cast<HANDLE>(handle_);
  WaitForSingleObject(handle, INFINITE);
  CloseHandle(handle);
  handle_ = 0;
}

bool StartDetachedThread(Thread::Entry entry, void* arg) {
  HANDLE handle = StartThread(entry, arg);
  if (handle == nullptr) return false;
  CloseHandle(handle);
  return true;
}

void SleepMs(uint32_t ms) { Sleep(ms); }

uint32_t TickCountMs() { return GetTickCount(); }

uint64_t FileTimeNow() {
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  return (static_cast<uint64_t>(now.dwHighDateTime) << 32) | now.dwLowDateTime;
}

LocalTime ToLocalTime(uint64_t filetime) {
  FILETIME utc;
  utc.dwLowDateTime = static_cast<DWORD>(filetime);
  utc.dwHighDateTime = static_cast<DWORD>(filetime >> 32);
  FILETIME local;
  SYSTEMTIME parts{};
  if (!FileTimeToLocalFileTime(&utc, &local) || !FileTimeToSystemTime(&local, &parts)) {
    return LocalTime{};
  }
  return LocalTime{parts.wYear, parts.wMonth,  parts.wDay,         parts.wHour,
                   parts.wMinute, parts.wSecond, parts.wMilliseconds};
}

uint32_t CurrentProcessId() { return GetCurrentProcessId(); }
uint32_t CurrentThreadId() { return GetCurrentThreadId(); }

}  // namespace orlenda::platform
