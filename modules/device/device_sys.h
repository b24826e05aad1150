/* The system services the device modules' shared core needs: the module's one lock with condition
 * variables on it, threads, a waker that interrupts a blocked device call, a monotonic clock, and
 * the system's text for an error code. device_sys_posix.c and device_sys_win32.c implement it;
 * each module links exactly one of them (it holds the module lock, modules/module_lock.h).
 *
 * Plain C. */
#ifndef ORLENDA_DEVICE_SYS_H
#define ORLENDA_DEVICE_SYS_H

#include <stdint.h>

#include "device_text.h"

#ifdef _WIN32
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>
typedef CONDITION_VARIABLE DevCondition;
typedef HANDLE DevThread;
/* A manual-reset event, signalled while set. */
typedef struct DevWaker {
  HANDLE event;
} DevWaker;
#else
#include <pthread.h>
typedef pthread_cond_t DevCondition;
typedef pthread_t DevThread;
/* A pipe whose read end is readable while the waker is set. */
typedef struct DevWaker {
  int fds[2];
  volatile int set;
} DevWaker;
#endif

#ifdef __cplusplus
extern "C" {
#endif

#define DEV_FOREVER 0xFFFFFFFFu

/* The module lock (not re-entrant). */
void DevLock(void);
void DevUnlock(void);

/* Condition variables on the module lock: wait with the lock held, for at most `ms` (DEV_FOREVER:
 * no bound); spurious wake-ups happen, so callers loop on their own condition. */
int DevConditionInit(DevCondition* condition);
void DevConditionDestroy(DevCondition* condition);
void DevConditionWait(DevCondition* condition, uint32_t ms);
void DevConditionBroadcast(DevCondition* condition);

/* Starts `main(argument)` on a new thread; nonzero on success. Join waits for it to end. */
int DevThreadStart(DevThread* thread, void (*main)(void*), void* argument);
void DevThreadJoin(DevThread* thread);

/* A waker starts clear. Set is safe from any thread and stays set until Reset; blocked device
 * calls that watch the waker return as soon as it is set. */
int DevWakerInit(DevWaker* waker);
void DevWakerDestroy(DevWaker* waker);
void DevWakerSet(DevWaker* waker);
void DevWakerReset(DevWaker* waker);
int DevWakerIsSet(DevWaker* waker);

/* Milliseconds of a monotonic clock. */
uint64_t DevNowMs(void);

/* Appends the system's text for `code` (errno on POSIX, GetLastError/WSAGetLastError on Windows)
 * followed by " (error <code>)". */
void DevTextSystemError(DevText* text, uint32_t code);

#ifdef __cplusplus
}
#endif

#endif /* ORLENDA_DEVICE_SYS_H */
