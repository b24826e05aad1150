/* The one lock of a component module, for the modules built in this tree: Lock() and Unlock()
 * around the module's own state. On Windows a critical section that DllMain creates and deletes,
 * on POSIX a statically initialised mutex. Include it once, in the module's only source file. */
#ifndef ORLENDA_MODULE_LOCK_H
#define ORLENDA_MODULE_LOCK_H

#ifdef _WIN32
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>

static CRITICAL_SECTION g_lock;
static void Lock(void) { EnterCriticalSection(&g_lock); }
static void Unlock(void) { LeaveCriticalSection(&g_lock); }

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved) {
  (void)instance;
  (void)reserved;
  if (reason == DLL_PROCESS_ATTACH) InitializeCriticalSection(&g_lock);
  if (reason == DLL_PROCESS_DETACH) DeleteCriticalSection(&g_lock);
  return TRUE;
}
#else
#include <pthread.h>

static pthread_mutex_t g_lock = PTHREAD_MUTEX_INITIALIZER;
static void Lock(void) { pthread_mutex_lock(&g_lock); }
static void Unlock(void) { pthread_mutex_unlock(&g_lock); }
#endif

#endif /* ORLENDA_MODULE_LOCK_H */
