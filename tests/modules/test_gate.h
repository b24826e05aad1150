/* What the test module needs of the platform beyond its lock: a gate that holds callers until it
 * opens (or a time limit passes), a sleep, and a thread that runs a function and is waited for.
 * The gate waits on the module's own lock (module_lock.h, included first). Plain C; include it
 * once, in the module's only source file. */
#ifndef ORLENDA_TEST_GATE_H
#define ORLENDA_TEST_GATE_H

#include <stdint.h>

#ifdef _WIN32
static CONDITION_VARIABLE g_gate_changed = CONDITION_VARIABLE_INIT;
#define GATE_WAKE() WakeAllConditionVariable(&g_gate_changed)
static void GateSleepMs(uint32_t ms) { Sleep(ms); }
typedef DWORD GateDeadline;
static GateDeadline GateDeadlineIn(uint32_t seconds) { return GetTickCount() + seconds * 1000u; }
/* Waits (module lock held) for a change; 0 once `deadline` has passed. */
static int GateWaitChange(GateDeadline deadline) {
  const DWORD left = deadline - GetTickCount();
  return (int32_t)left > 0 && SleepConditionVariableCS(&g_gate_changed, &g_lock, left);
}

/* A function GateRunOnThread runs: `static GATE_THREAD(Name) { ... return 0; }`, its argument `arg`. */
#define GATE_THREAD(name) DWORD WINAPI name(LPVOID arg)
/* Runs fn(arg) on a new thread and waits for it; 0 when no thread could be made. */
static int GateRunOnThread(LPTHREAD_START_ROUTINE fn, void* arg) {
  HANDLE thread = CreateThread(NULL, 0, fn, arg, 0, NULL);
  if (thread == NULL) return 0;
  WaitForSingleObject(thread, INFINITE);
  CloseHandle(thread);
  return 1;
}
#else
#include <errno.h>
#include <time.h>

static pthread_cond_t g_gate_changed = PTHREAD_COND_INITIALIZER;
#define GATE_WAKE() pthread_cond_broadcast(&g_gate_changed)
static void GateSleepMs(uint32_t ms) {
  const struct timespec t = {ms / 1000, (long)(ms % 1000) * 1000000L};
  nanosleep(&t, NULL);
}
typedef struct timespec GateDeadline;
static GateDeadline GateDeadlineIn(uint32_t seconds) {
  struct timespec until;
  clock_gettime(CLOCK_REALTIME, &until);
  until.tv_sec += seconds;
  return until;
}
static int GateWaitChange(GateDeadline deadline) {
  return pthread_cond_timedwait(&g_gate_changed, &g_lock, &deadline) != ETIMEDOUT;
}

#define GATE_THREAD(name) void* name(void* arg)
static int GateRunOnThread(void* (*fn)(void*), void* arg) {
  pthread_t thread;
  if (pthread_create(&thread, NULL, fn, arg) != 0) return 0;
  pthread_join(thread, NULL);
  return 1;
}
#endif

/* The gate: while it is closed for a key, GatePass with that key holds its caller. */
static uint32_t g_gate_closed_for; /* 0: open for every key */
static uint32_t g_gate_waiting;

static void GateSet(uint32_t closed_for) {
  Lock();
  g_gate_closed_for = closed_for;
  GATE_WAKE();
  Unlock();
}

/* Returns 1 once the gate is open for `key`, 0 when it stayed closed for `limit_s` seconds. */
static int GatePass(uint32_t key, uint32_t limit_s) {
  const GateDeadline deadline = GateDeadlineIn(limit_s);
  int passed;
  Lock();
  ++g_gate_waiting;
  while (key != 0 && g_gate_closed_for == key && GateWaitChange(deadline)) {
  }
  passed = key == 0 || g_gate_closed_for != key;
  --g_gate_waiting;
  Unlock();
  return passed;
}

static uint32_t GateWaiting(void) {
  uint32_t count;
  Lock();
  count = g_gate_waiting;
  Unlock();
  return count;
}

#endif /* ORLENDA_TEST_GATE_H */
