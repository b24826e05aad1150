#include "connections/request_pool.h"

#include <atomic>
#include <thread>

#include "common/heap.h"
#include "platform/sync.h"
#include "platform/thread.h"

namespace orlenda {
namespace {

// A worker that has just finished looks for its next request a little while before it sleeps:
// under load the next one comes within that time, and handing it to a thread that is awake costs a
// store instead of a wake-up through the kernel (two context switches). The spin yields the
// processor on each turn, so it never starves the thread that would send the request.
constexpr int kSpinTurns = 64;

struct Worker {
  platform::Event wake{platform::ResetMode::kAuto, false};
  std::atomic<bool> assigned{false};  // a request waits in work/arg
  std::atomic<bool> sleeping{false};  // the worker waits on `wake` (or is about to)
  RequestPool::Work work = nullptr;   // written before `assigned`, read after it
  void* arg = nullptr;
};

// Made on first use and never destroyed: idle workers may still wait in it while the process ends.
struct Pool {
  platform::CriticalSection lock;
  HeapVector<Worker*> idle;  // last in, first out: the warmest thread goes first
  std::size_t threads = 0;
};

Pool& ThePool() {
  static Pool* pool = HeapNew<Pool>();
  return *pool;
}

// Whether a request was handed to `self`, spinning a little first.
bool AwaitRequest(Worker* self) {
  for (int turn = 0; turn < kSpinTurns; ++turn) {
    if (self->assigned.load(std::memory_order_acquire)) return true;
    std::this_thread::yield();
  }
  // Going to sleep: whoever assigns from now on sees `sleeping` and wakes us, or we see its
  // assignment here (both flags are sequentially consistent).
  self->sleeping.store(true, std::memory_order_seq_cst);
  for (;;) {
    if (self->assigned.load(std::memory_order_seq_cst)) break;
    if (!self->wake.Wait(RequestPool::kIdleMs)) {
      // Idle too long: leave the pool, unless Run has taken this worker out of it already (its
      // request is then on the way: wait for it).
      Pool& pool = ThePool();
      platform::ScopedLock hold(pool.lock);
      bool taken = true;
      for (std::size_t i = 0; i < pool.idle.size(); ++i) {
        if (pool.idle[i] == self) {
          pool.idle.erase(pool.idle.begin() + static_cast<std::ptrdiff_t>(i));
          taken = false;
          break;
        }
      }
      if (taken) continue;
      --pool.threads;
      return false;
    }
  }
  self->sleeping.store(false, std::memory_order_relaxed);
  return true;
}

// A worker's life: its first request, then as long as requests come within kIdleMs.
void WorkerMain(void* argument) {
  auto* self = static_cast<Worker*>(argument);
  Pool& pool = ThePool();
  do {
    self->assigned.store(false, std::memory_order_relaxed);
    self->work(self->arg);
    platform::ScopedLock hold(pool.lock);
    pool.idle.push_back(self);
  } while (AwaitRequest(self));
  HeapDelete(self);
}

}  // namespace

bool RequestPool::Run(Work work, void* arg) {
  Pool& pool = ThePool();
  Worker* idle = nullptr;
  {
    platform::ScopedLock hold(pool.lock);
    if (!pool.idle.empty()) {
      idle = pool.idle.back();
      pool.idle.pop_back();
    } else {
      ++pool.threads;
    }
  }
  if (idle != nullptr) {
    idle->work = work;
    idle->arg = arg;
    idle->assigned.store(true, std::memory_order_seq_cst);
    if (idle->sleeping.load(std::memory_order_seq_cst)) idle->wake.Set();
    return true;
  }
  Worker* worker = HeapNew<Worker>();
  if (worker != nullptr) {
    worker->work = work;
    worker->arg = arg;
    if (platform::StartDetachedThread(&WorkerMain, worker)) return true;
    HeapDelete(worker);
  }
  platform::ScopedLock hold(pool.lock);
  --pool.threads;
  return false;
}

std::size_t RequestPool::ThreadCount() {
  Pool& pool = ThePool();
  platform::ScopedLock hold(pool.lock);
  return pool.threads;
}

std::size_t RequestPool::IdleCount() {
  Pool& pool = ThePool();
  platform::ScopedLock hold(pool.lock);
  return pool.idle.size();
}

}  // namespace orlenda
