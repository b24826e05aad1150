/* device_sys.h on POSIX: pthreads, a condition variable on CLOCK_MONOTONIC, a pipe as the waker. */
#define _POSIX_C_SOURCE 200809L /* the XSI strerror_r */

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "device_sys.h"
#include "module_lock.h"

void DevLock(void) { Lock(); }
void DevUnlock(void) { Unlock(); }

int DevConditionInit(DevCondition* condition) {
  pthread_condattr_t attributes;
  int ok;
  if (pthread_condattr_init(&attributes) != 0) return 0;
  ok = pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC) == 0 && pthread_cond_init(condition, &attributes) == 0;
  pthread_condattr_destroy(&attributes);
  return ok;
}

void DevConditionDestroy(DevCondition* condition) { pthread_cond_destroy(condition); }

void DevConditionWait(DevCondition* condition, uint32_t ms) {
  struct timespec until;
  if (ms == DEV_FOREVER) {
    pthread_cond_wait(condition, &g_lock);
    return;
  }
  clock_gettime(CLOCK_MONOTONIC, &until);
  until.tv_sec += ms / 1000;
  until.tv_nsec += (long)(ms % 1000) * 1000000L;
  if (until.tv_nsec >= 1000000000L) {
    until.tv_sec += 1;
    until.tv_nsec -= 1000000000L;
  }
  pthread_cond_timedwait(condition, &g_lock, &until);
}

void DevConditionBroadcast(DevCondition* condition) { pthread_cond_broadcast(condition); }

typedef struct ThreadStart {
  void (*main)(void*);
  void* argument;
} ThreadStart;

static void* ThreadMain(void* raw) {
  ThreadStart start = *(ThreadStart*)raw;
  SkHeapFree(raw);
  start.main(start.argument);
  return NULL;
}

int DevThreadStart(DevThread* thread, void (*main)(void*), void* argument) {
  ThreadStart* start = (ThreadStart*)SkHeapAlloc(sizeof(ThreadStart));
  if (start == NULL) return 0;
  start->main = main;
  start->argument = argument;
  if (pthread_create(thread, NULL, ThreadMain, start) != 0) {
    SkHeapFree(start);
    return 0;
  }
  return 1;
}

void DevThreadJoin(DevThread* thread) { pthread_join(*thread, NULL); }

int DevWakerInit(DevWaker* waker) {
  int i;
  waker->set = 0;
  if (pipe(waker->fds) != 0) return 0;
  for (i = 0; i < 2; ++i) {
    fcntl(waker->fds[i], F_SETFD, FD_CLOEXEC);
    fcntl(waker->fds[i], F_SETFL, fcntl(waker->fds[i], F_GETFL) | O_NONBLOCK);
  }
  return 1;
}

void DevWakerDestroy(DevWaker* waker) {
  close(waker->fds[0]);
  close(waker->fds[1]);
}

void DevWakerSet(DevWaker* waker) {
  /* One byte is enough to keep the read end readable; the flag keeps the pipe from filling up. */
  if (__atomic_exchange_n(&waker->set, 1, __ATOMIC_ACQ_REL) == 0) {
    ssize_t n;
    do {
      n = write(waker->fds[1], "w", 1);
    } while (n < 0 && errno == EINTR);
  }
}

void DevWakerReset(DevWaker* waker) {
  char drain[16];
  __atomic_store_n(&waker->set, 0, __ATOMIC_RELEASE);
  while (read(waker->fds[0], drain, sizeof drain) > 0) {
  }
}

int DevWakerIsSet(DevWaker* waker) { return __atomic_load_n(&waker->set, __ATOMIC_ACQUIRE) != 0; }

uint64_t DevNowMs(void) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return (uint64_t)now.tv_sec * 1000u + (uint64_t)now.tv_nsec / 1000000u;
}

void DevTextSystemError(DevText* text, uint32_t code) {
  char message[256];
  if (strerror_r((int)code, message, sizeof message) != 0) message[0] = 0;
  DevTextAscii(text, message[0] != 0 ? message : "unknown error");
  DevTextAscii(text, " (error ");
  DevTextNumber(text, code);
  DevTextAscii(text, ")");
}
