/* device_sys.h on Windows: condition variables on the module's critical section, Win32 threads, a
 * manual-reset event as the waker. */
#include "device_sys.h"
#include "module_lock.h"

void DevLock(void) { Lock(); }
void DevUnlock(void) { Unlock(); }

int DevConditionInit(DevCondition* condition) {
  InitializeConditionVariable(condition);
  return 1;
}

void DevConditionDestroy(DevCondition* condition) { (void)condition; /* nothing to release */ }

void DevConditionWait(DevCondition* condition, uint32_t ms) {
  SleepConditionVariableCS(condition, &g_lock, ms == DEV_FOREVER ? INFINITE : ms);
}

void DevConditionBroadcast(DevCondition* condition) { WakeAllConditionVariable(condition); }

typedef struct ThreadStart {
  void (*main)(void*);
  void* argument;
} ThreadStart;

static DWORD WINAPI ThreadMain(LPVOID raw) {
  ThreadStart start = *(ThreadStart*)raw;
  SkHeapFree(raw);
  start.main(start.argument);
  return 0;
}

int DevThreadStart(DevThread* thread, void (*main)(void*), void* argument) {
  ThreadStart* start = (ThreadStart*)SkHeapAlloc(sizeof(ThreadStart));
  if (start == NULL) return 0;
  start->main = main;
  start->argument = argument;
  *thread = CreateThread(NULL, 0, ThreadMain, start, 0, NULL);
  if (*thread == NULL) {
    SkHeapFree(start);
    return 0;
  }
  return 1;
}

void DevThreadJoin(DevThread* thread) {
  WaitForSingleObject(*thread, INFINITE);
  CloseHandle(*thread);
}

int DevWakerInit(DevWaker* waker) {
  waker->event = CreateEventW(NULL, TRUE, FALSE, NULL);
  return waker->event != NULL;
}

void DevWakerDestroy(DevWaker* waker) { CloseHandle(waker->event); }
void DevWakerSet(DevWaker* waker) { SetEvent(waker->event); }
void DevWakerReset(DevWaker* waker) { ResetEvent(waker->event); }
int DevWakerIsSet(DevWaker* waker) { return WaitForSingleObject(waker->event, 0) == WAIT_OBJECT_0; }

uint64_t DevNowMs(void) { return GetTickCount64(); }

void DevTextSystemError(DevText* text, uint32_t code) {
  wchar_t message[256];
  DWORD n = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, NULL, code, 0, message,
                           sizeof message / sizeof message[0], NULL);
  /* The system's texts end in a line break. */
  while (n > 0 && (message[n - 1] == L'\r' || message[n - 1] == L'\n' || message[n - 1] == L' ')) --n;
  if (n == 0) {
    DevTextAscii(text, "unknown error");
  } else {
    DevTextUnits(text, (const uint16_t*)message, n);
  }
  DevTextAscii(text, " (error ");
  DevTextNumber(text, code);
  DevTextAscii(text, ")");
}
