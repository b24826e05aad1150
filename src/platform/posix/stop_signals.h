// The stop requests of a POSIX process, SIGINT and SIGTERM, taken on a thread of their own: they
// are blocked in the calling thread (every thread it starts later inherits that), and a detached
// thread waits for them with sigwait and calls `on_signal(arg)` for each. Nothing runs in signal
// context, so the callback may lock as it likes. Shared by the console's stop event and the
// service's stop control.
#pragma once

#include <pthread.h>
#include <signal.h>

#include "platform/heap.h"

namespace orlenda::platform {

using StopSignalCallback = void (*)(void* arg);

namespace stop_signals_detail {

inline sigset_t Signals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

struct Target {
  StopSignalCallback callback;
  void* arg;
};

inline void* Wait(void* target) {
  const Target to = *static_cast<Target*>(target);
  DeleteHeapObject(static_cast<Target*>(target));
  const sigset_t signals = Signals();
  for (;;) {
    int number = 0;
    if (sigwait(&signals, &number) == 0) to.callback(to.arg);
  }
  return nullptr;
}

}  // namespace stop_signals_detail

// False when no thread could take the signals; they then end the process as before.
inline bool TakeStopSignals(StopSignalCallback callback, void* arg) {
  const sigset_t signals = stop_signals_detail::Signals();
  if (pthread_sigmask(SIG_BLOCK, &signals, nullptr) != 0) return false;
  auto* target = NewHeapObject<stop_signals_detail::Target>();
  if (target == nullptr) return false;
  *target = stop_signals_detail::Target{callback, arg};
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  pthread_t thread;
  const bool started = pthread_create(&thread, &attributes, stop_signals_detail::Wait, target) == 0;
  pthread_attr_destroy(&attributes);
  if (!started) {
    DeleteHeapObject(target);
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
  }
  return started;
}

}  // namespace orlenda::platform
