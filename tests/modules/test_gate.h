/* What the test module needs of the platform beyond its lock: a gate that holds callers until it
 * opens (or a time limit passes), a sleep, and a thread that runs a function and is waited for.
 * Plain C; include it once, in the module's only source file. */
#ifndef ORLENDA_TEST_GATE_H
#define ORLENDA_TEST_GATE_H

#include <stdint.h>

typedef void (*GateThreadFn)(void* arg);
typedef struct GateThreadStart {
  GateThreadFn fn;
  void* arg;
} GateThreadStart;

#ifdef _WIN32
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>

static SRWLOCK g_gate_lock = SRWLOCK_INIT;
static CONDITION_VARIABLE g_gate_changed = CONDITION_VARIABLE_INIT;
#define GATE_ENTER() AcquireSRWLockExclusive(&g_gate_lock)
#define GATE_LEAVE() ReleaseSRWLockExclusive(&g_gate_lock)
#define GATE_WAKE() WakeAllConditionVariable(&g_gate_changed)
static void GateSleepMs(uint32_t ms) { Sleep(ms); }
typedef DWORD GateDeadline;
static GateDeadline GateDeadlineIn(uint32_t ms) { return GetTickCount() + ms; }
/* Waits (gate lock held) for a change; 0 once `deadline` has passed. */
static int GateWaitChange(GateDeadline deadline) {
  const DWORD left = deadline - GetTickCount();
  return (int32_t)left > 0 && SleepConditionVariableSRW(&g_gate_changed, &g_gate_lock, left, 0);
}

static DWORD WINAPI GateThreadEntry(LPVOID p) {
  GateThreadStart* start = (GateThreadStart*)p;
  start->fn(start->arg);
  return 0;
}
/* Runs fn(arg) on a new thread and waits for it; 0 when no thread could be made. */
static int GateRunOnThread(GateThreadFn fn, void* arg) {
  GateThreadStart start;
  HANDLE thread;
  start.fn = fn;
  start.arg = arg;
  thread = CreateThread(NULL, 0, GateThreadEntry, &start, 0, NULL);
  if (thread == NULL) return 0;
  WaitForSingleObject(thread, INFINITE);
  CloseHandle(thread);
  return 1;
}
#else
#include <errno.h>
#include <pthread.h>
#include <time.h>

static pthread_mutex_t g_gate_lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t g_gate_changed = PTHREAD_COND_INITIALIZER;
#define GATE_ENTER() pthread_mutex_lock(&g_gate_lock)
#define GATE_LEAVE() pthread_mutex_unlock(&g_gate_lock)
#define GATE_WAKE() pthread_cond_broadcast(&g_gate_changed)
static void GateSleepMs(uint32_t ms) {
  struct timespec t;
  t.tv_sec = ms / 1000;
  t.tv_nsec = (long)(ms % 1000) * 1000000L;
  nanosleep(&t, NULL);
}
typedef struct timespec GateDeadline;
static GateDeadline GateDeadlineIn(uint32_t ms) {
  struct timespec until;
  long ns;
  clock_gettime(CLOCK_REALTIME, &until);
  ns = until.tv_nsec + (long)(ms % 1000) * 1000000L;
  until.tv_sec += ms / 1000 + ns / 1000000000L;
  until.tv_nsec = ns % 1000000000L;
  return until;
}
static int GateWaitChange(GateDeadline deadline) {
  return pthread_cond_timedwait(&g_gate_changed, &g_gate_lock, &deadline) != ETIMEDOUT;
}

static void* GateThreadEntry(void* p) {
  GateThreadStart* start = (GateThreadStart*)p;
  start->fn(start->arg);
  return NULL;
}
static int GateRunOnThread(GateThreadFn fn, void* arg) {
  GateThreadStart start;
  pthread_t thread;
  start.fn = fn;
  start.arg = arg;
  if (pthread_create(&thread, NULL, GateThreadEntry, &start) != 0) return 0;
  pthread_join(thread, NULL);
  return 1;
}
#endif

/* The gate: while it is closed for a key, GatePass with that key holds its caller. */
static uint32_t g_gate_closed_for; /* 0: open for every key */
static uint32_t g_gate_waiting;

static void GateSet(uint32_t closed_for) {
  GATE_ENTER();
  g_gate_closed_for = closed_for;
  GATE_WAKE();
  GATE_LEAVE();
}

/* Returns 1 once the gate is open for `key`, 0 when it stayed closed for `limit_ms`. */
static int GatePass(uint32_t key, uint32_t limit_ms) {
  const GateDeadline deadline = GateDeadlineIn(limit_ms);
  int passed;
  GATE_ENTER();
  ++g_gate_waiting;
  while (key != 0 && g_gate_closed_for == key && GateWaitChange(deadline)) {
  }
  passed = key == 0 || g_gate_closed_for != key;
  --g_gate_waiting;
  GATE_LEAVE();
  return passed;
}

static uint32_t GateWaiting(void) {
  uint32_t count;
  GATE_ENTER();
  count = g_gate_waiting;
  GATE_LEAVE();
  return count;
}

#endif /* ORLENDA_TEST_GATE_H */
