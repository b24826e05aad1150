// Stop requests on POSIX: SIGINT and SIGTERM are blocked in the calling thread, which every thread
// it starts later inherits, and one detached thread takes them with sigwait and sets the stop event.
// Nothing runs in signal context, so setting the event may lock as it likes.
#include "platform/console.h"

#include <pthread.h>
#include <signal.h>

namespace orlenda::platform {
namespace {

sigset_t StopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGINT);
  sigaddset(&signals, SIGTERM);
  return signals;
}

void* SignalThread(void* stop) {
  const sigset_t signals = StopSignals();
  for (;;) {
    int signal_number = 0;
    // Every request sets the event again; a second Ctrl+C while stopping is harmless.
    if (sigwait(&signals, &signal_number) == 0) static_cast<Event*>(stop)->Set();
  }
  return nullptr;
}

}  // namespace

bool SetStopEvent(Event* stop) {
  if (stop == nullptr) return false;
  const sigset_t signals = StopSignals();
  if (pthread_sigmask(SIG_BLOCK, &signals, nullptr) != 0) return false;
  pthread_attr_t attr;
  pthread_attr_init(&attr);
  pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
  pthread_t thread;
  int result = pthread_create(&thread, &attr, SignalThread, stop);
  pthread_attr_destroy(&attr);
  if (result != 0) {
    // Nobody would take the signals: let them end the process as before.
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    return false;
  }
  return true;
}

}  // namespace orlenda::platform
