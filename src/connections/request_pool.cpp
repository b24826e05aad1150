#include "connections/request_pool.h"

#include "common/heap.h"
#include "platform/sync.h"
#include "platform/thread.h"

namespace orlenda {
namespace {

struct Worker {
  platform::Event wake{platform::ResetMode::kAuto, false};
  RequestPool::Work work = nullptr;  // under the pool's lock while idle
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

// A worker's life: its first request, then as long as requests come within kIdleMs.
void WorkerMain(void* argument) {
  auto* self = static_cast<Worker*>(argument);
  Pool& pool = ThePool();
  for (;;) {
    self->work(self->arg);
    {
      platform::ScopedLock hold(pool.lock);
      self->work = nullptr;
      pool.idle.push_back(self);
    }
    if (self->wake.Wait(RequestPool::kIdleMs)) continue;
    platform::ScopedLock hold(pool.lock);
    if (self->work != nullptr) {
      // Handed a request just as the wait ran out: take it (its wake-up is consumed here).
      self->wake.Wait(0);
      continue;
    }
    for (std::size_t i = 0; i < pool.idle.size(); ++i) {
      if (pool.idle[i] == self) {
        pool.idle.erase(pool.idle.begin() + static_cast<std::ptrdiff_t>(i));
        break;
      }
    }
    --pool.threads;
    break;
  }
  HeapDelete(self);
}

}  // namespace

bool RequestPool::Run(Work work, void* arg) {
  Pool& pool = ThePool();
  {
    platform::ScopedLock hold(pool.lock);
    if (!pool.idle.empty()) {
      Worker* worker = pool.idle.back();
      pool.idle.pop_back();
      worker->work = work;
      worker->arg = arg;
      worker->wake.Set();
      return true;
    }
    ++pool.threads;
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
