#include "platform/thread.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <new>

#include "platform/heap.h"

namespace orlenda::platform {
namespace {

// 1970-01-01 as a FILETIME: 100 ns units since 1601-01-01.
constexpr uint64_t kUnixEpochAsFileTime = 116444736000000000ull;
constexpr uint64_t kFileTimePerSecond = 10000000ull;

// What handle_ points to: lives from Start to Join, so the thread may read it at any time.
struct ThreadBlock {
  pthread_t thread;
  Thread::Entry entry;
  void* arg;
};

void* Trampoline(void* block) {
  auto* self = static_cast<ThreadBlock*>(block);
  self->entry(self->arg);
  return nullptr;
}

// A detached thread's start: freed by the thread once read.
struct DetachedStart {
  Thread::Entry entry;
  void* arg;
};

void* DetachedTrampoline(void* block) {
  auto* start = static_cast<DetachedStart*>(block);
  const DetachedStart copy = *start;
  HeapFreeBlock(start);
  copy.entry(copy.arg);
  return nullptr;
}

}  // namespace

Thread::~Thread() { Join(); }

bool StartDetachedThread(Thread::Entry entry, void* arg) {
  auto* start = static_cast<DetachedStart*>(HeapAllocZero(sizeof(DetachedStart)));
  if (start == nullptr) return false;
  *start = DetachedStart{entry, arg};
  pthread_attr_t attributes;
  pthread_t thread;
  bool started = false;
  if (pthread_attr_init(&attributes) == 0) {
    started = pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED) == 0 &&
              pthread_create(&thread, &attributes, DetachedTrampoline, start) == 0;
    pthread_attr_destroy(&attributes);
  }
  if (!started) HeapFreeBlock(start);
  return started;
}

bool Thread::Start(Entry entry, void* arg) {
  if (handle_ != 0) return false;
  void* memory = HeapAllocZero(sizeof(ThreadBlock));
  if (memory == nullptr) return false;
  auto* block = new (memory) ThreadBlock{pthread_t(), entry, arg};
  if (pthread_create(&block->thread, nullptr, Trampoline, block) != 0) {
    block->~ThreadBlock();
    HeapFreeBlock(block);
    return false;
  }
  handle_ = reinterpret_cast<uintptr_t>(block);
  return true;
}

void Thread::Join() {
  if (handle_ == 0) return;
  auto* block = reinterpret_cast<ThreadBlock*>(handle_);
  pthread_join(block->thread, nullptr);
  block->~ThreadBlock();
  HeapFreeBlock(block);
  handle_ = 0;
}

void SleepMs(uint32_t ms) {
  timespec rest{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
  while (nanosleep(&rest, &rest) != 0 && errno == EINTR) {
  }
}

uint32_t TickCountMs() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  uint64_t ms = static_cast<uint64_t>(now.tv_sec) * 1000u + static_cast<uint64_t>(now.tv_nsec) / 1000000u;
  return static_cast<uint32_t>(ms);
}

uint64_t FileTimeNow() {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return kUnixEpochAsFileTime + static_cast<uint64_t>(now.tv_sec) * kFileTimePerSecond +
         static_cast<uint64_t>(now.tv_nsec) / 100u;
}

LocalTime ToLocalTime(uint64_t filetime) {
  // Seconds relative to 1970, rounded toward minus infinity so times before 1970 keep their
  // millisecond part positive.
  int64_t units = static_cast<int64_t>(filetime - kUnixEpochAsFileTime);
  int64_t seconds = units / static_cast<int64_t>(kFileTimePerSecond);
  int64_t rest = units % static_cast<int64_t>(kFileTimePerSecond);
  if (rest < 0) {
    rest += kFileTimePerSecond;
    seconds -= 1;
  }
  time_t t = static_cast<time_t>(seconds);
  tm local{};
  localtime_r(&t, &local);
  LocalTime result;
  result.year = static_cast<uint16_t>(local.tm_year + 1900);
  result.month = static_cast<uint16_t>(local.tm_mon + 1);
  result.day = static_cast<uint16_t>(local.tm_mday);
  result.hour = static_cast<uint16_t>(local.tm_hour);
  result.minute = static_cast<uint16_t>(local.tm_min);
  result.second = static_cast<uint16_t>(local.tm_sec);
  result.millisecond = static_cast<uint16_t>(rest / 10000);
  return result;
}

// Both ids are asked for with every trace record, and each question is a system call here (the C
// library keeps no copy), so they are kept: the thread id per thread, the process id per process.
// A child made by fork has a new process id and its thread a new thread id: both are forgotten in
// the child.
namespace {

std::atomic<uint32_t> g_process_id{0};
thread_local uint32_t t_thread_id = 0;

void ForgetIdsInChild() {
  g_process_id.store(0, std::memory_order_relaxed);
  t_thread_id = 0;
}

}  // namespace

uint32_t CurrentProcessId() {
  uint32_t id = g_process_id.load(std::memory_order_relaxed);
  if (id == 0) {
    static const int registered = pthread_atfork(nullptr, nullptr, &ForgetIdsInChild);
    (void)registered;
    id = static_cast<uint32_t>(getpid());
    g_process_id.store(id, std::memory_order_relaxed);
  }
  return id;
}

uint32_t CurrentThreadId() {
  if (t_thread_id == 0) {
    CurrentProcessId();  // registers the fork handler that forgets this one too
    t_thread_id = static_cast<uint32_t>(syscall(SYS_gettid));
  }
  return t_thread_id;
}

}  // namespace orlenda::platform
