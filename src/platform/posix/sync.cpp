// Events on POSIX: one process-wide mutex guards the state of every event. A waiting call owns a
// condition variable and hangs one link on each event it waits for; Set signals every linked waiter,
// which then re-checks its events in index order under the mutex. Deciding who gets an auto-reset
// event under that one mutex is what makes "exactly one waiter" and "lowest index wins" hold.
#include "platform/sync.h"

#include <pthread.h>
#include <time.h>

#include <cstdlib>
#include <new>

#include "platform/heap.h"

namespace orlenda::platform {
namespace {

pthread_mutex_t g_events_mutex = PTHREAD_MUTEX_INITIALIZER;

template <typename T>
T* NewOnHeap() {
  void* block = HeapAllocZero(sizeof(T));
  if (block == nullptr) std::abort();  // like Windows, a lock or event that cannot exist is fatal
  return new (block) T();
}

template <typename T>
void DeleteOnHeap(T* object) {
  if (object == nullptr) return;
  object->~T();
  HeapFreeBlock(object);
}

struct Waiter;

// One waiter's place in one event's list.
struct WaitLink {
  WaitLink* prev = nullptr;
  WaitLink* next = nullptr;
  Waiter* waiter = nullptr;
};

struct Waiter {
  pthread_cond_t cond;
  WaitLink links[kMaxWaitObjects];
};

class EventsLock {
 public:
  EventsLock() { pthread_mutex_lock(&g_events_mutex); }
  ~EventsLock() { pthread_mutex_unlock(&g_events_mutex); }
  EventsLock(const EventsLock&) = delete;
  EventsLock& operator=(const EventsLock&) = delete;
};

timespec DeadlineAfter(uint32_t timeout_ms) {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  now.tv_sec += timeout_ms / 1000;
  now.tv_nsec += static_cast<long>(timeout_ms % 1000) * 1000000L;
  if (now.tv_nsec >= 1000000000L) {
    now.tv_sec += 1;
    now.tv_nsec -= 1000000000L;
  }
  return now;
}

}  // namespace

struct CriticalSection::Impl {
  pthread_mutex_t mutex;
};

CriticalSection::CriticalSection() : impl_(NewOnHeap<Impl>()) {
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&impl_->mutex, &attr);
  pthread_mutexattr_destroy(&attr);
}

CriticalSection::~CriticalSection() {
  pthread_mutex_destroy(&impl_->mutex);
  DeleteOnHeap(impl_);
}

void CriticalSection::Enter() { pthread_mutex_lock(&impl_->mutex); }
void CriticalSection::Leave() { pthread_mutex_unlock(&impl_->mutex); }
bool CriticalSection::TryEnter() { return pthread_mutex_trylock(&impl_->mutex) == 0; }

struct Event::Impl {
  bool manual = false;
  bool set = false;
  WaitLink* waiters = nullptr;  // guarded by g_events_mutex, like `set`
};

Event::Event(ResetMode mode, bool initially_set) : impl_(NewOnHeap<Impl>()) {
  impl_->manual = mode == ResetMode::kManual;
  impl_->set = initially_set;
}

Event::~Event() { DeleteOnHeap(impl_); }

void Event::Set() {
  EventsLock lock;
  impl_->set = true;
  // Wake every linked waiter even for an auto-reset event: one that is woken may take a lower-index
  // event instead, so waking only one could leave this event set with its other waiters asleep.
  for (WaitLink* link = impl_->waiters; link != nullptr; link = link->next) {
    pthread_cond_signal(&link->waiter->cond);
  }
}

void Event::Reset() {
  EventsLock lock;
  impl_->set = false;
}

bool Event::Wait(uint32_t timeout_ms) {
  Event* self = this;
  return WaitForAny(&self, 1, timeout_ms) == 0;
}

namespace {

// Under g_events_mutex: the lowest set event, consumed if it resets automatically, or -1.
int TakeFirstSet(Event* const* events, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    Event::Impl* event = events[i]->impl();
    if (event->set) {
      if (!event->manual) event->set = false;
      return static_cast<int>(i);
    }
  }
  return kWaitTimeout;
}

void Link(Event::Impl* event, WaitLink* link) {
  link->prev = nullptr;
  link->next = event->waiters;
  if (event->waiters != nullptr) event->waiters->prev = link;
  event->waiters = link;
}

void Unlink(Event::Impl* event, WaitLink* link) {
  if (link->prev != nullptr) {
    link->prev->next = link->next;
  } else {
    event->waiters = link->next;
  }
  if (link->next != nullptr) link->next->prev = link->prev;
}

}  // namespace

int WaitForAny(Event* const* events, std::size_t count, uint32_t timeout_ms) {
  if (count == 0 || count > kMaxWaitObjects) return kWaitTimeout;
  {
    EventsLock lock;
    int index = TakeFirstSet(events, count);
    if (index != kWaitTimeout || timeout_ms == 0) return index;
  }

  // A deadline on the monotonic clock: a change of the wall clock neither ends nor stretches a wait.
  Waiter waiter;
  pthread_condattr_t attr;
  pthread_condattr_init(&attr);
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  pthread_cond_init(&waiter.cond, &attr);
  pthread_condattr_destroy(&attr);
  const timespec deadline = DeadlineAfter(timeout_ms == kInfinite ? 0 : timeout_ms);

  int index;
  {
    EventsLock lock;
    for (std::size_t i = 0; i < count; ++i) {
      waiter.links[i].waiter = &waiter;
      Link(events[i]->impl(), &waiter.links[i]);
    }
    for (;;) {
      index = TakeFirstSet(events, count);
      if (index != kWaitTimeout) break;
      if (timeout_ms == kInfinite) {
        pthread_cond_wait(&waiter.cond, &g_events_mutex);
      } else if (pthread_cond_timedwait(&waiter.cond, &g_events_mutex, &deadline) != 0) {
        index = TakeFirstSet(events, count);  // a Set that raced the time-out still counts
        break;
      }
    }
    for (std::size_t i = 0; i < count; ++i) Unlink(events[i]->impl(), &waiter.links[i]);
  }
  pthread_cond_destroy(&waiter.cond);
  return index;
}

}  // namespace orlenda::platform
