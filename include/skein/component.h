/* Orlenda component modules: the contract between the service and a module that serves ports.
 *
 * A component module is a dynamic library (a DLL on Windows, a shared object on POSIX) exporting
 *
 *   int32_t SKEIN_CALL InitializeSkeinComponent(const SkHostTable* host, SkComponentTable* ops);
 *   int32_t SKEIN_CALL UnloadSkeinComponent(void);                     (optional)
 *
 * The service zero-fills `ops` and calls InitializeSkeinComponent once after loading the module;
 * the module fills the entries it supports and returns nonzero to accept (0 refuses, and the module
 * is released at once). `host` stays valid until UnloadSkeinComponent, which the service calls once
 * before it releases the library.
 *
 * Memory. Blobs and strings live on the process heap (HeapAlloc on the process heap with zero fill
 * on Windows, calloc on POSIX), so either side may free what the other allocated; use the inline
 * helpers below.
 *
 * Ownership rules:
 *  - A blob handed to a call (Write's data, Ioctl's input, an event's data, SetBinary's value)
 *    carries one reference that now belongs to the callee: release it when done, or pass it on
 *    (to the layer below or above), which passes the reference too. A null blob is allowed.
 *  - A blob handed back through an out parameter (Ioctl's output, GetBinary) belongs to the caller.
 *  - A string handed to a call (Open's port path, the host table's paths and values) belongs to the
 *    callee, which frees it with SkStringFree. A string or list handed back through an out
 *    parameter belongs to the caller.
 *
 * Out parameters. Write's `written` and Ioctl's `output` are never NULL: the service always passes
 * a slot (Ioctl's holding NULL), so a component writes to it without checking. A component that
 * calls the layer below passes slots of its own the same way.
 *
 * Calling back. A component may call every host table entry, EnumeratePort included, from inside
 * any of its operations, its event entry and its own threads. A call in progress on one port never
 * holds up another port. On its own port, two things wait for each other and a component must not
 * wait for them: an Open of a port waits for another thread's Open of the same port to end, and the
 * port's lock requests are served one at a time (the stack's SK_PORT_LOCK, SK_PORT_EXCLUSIVE and
 * SK_LOCK_STATE are part of serving one). So inside those, do not wait for a thread of your own
 * that opens or locks the same port.
 *
 * Calls may come from any thread; a module serialises its own state.
 *
 * File version. The service traces every module's file version when it loads it. On Windows that is
 * the module's version resource (VERSIONINFO); on POSIX a module that wants one exports the data
 *
 *   const uint16_t SkeinComponentVersion[4];   (major, minor, patch, build)
 *
 * and is otherwise reported with "no version info".
 *
 * Plain C; compiles as C and as C++. */
#ifndef SKEIN_COMPONENT_H
#define SKEIN_COMPONENT_H

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "skein/protocol.h"

#ifdef _WIN32
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>
#define SKEIN_CALL __stdcall
#define SKEIN_EXPORT __declspec(dllexport)
#else
#include <stdlib.h>
#define SKEIN_CALL
#define SKEIN_EXPORT __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Process heap ---- */

static inline void* SkHeapAlloc(size_t bytes) {
#ifdef _WIN32
  return HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, bytes == 0 ? 1 : bytes);
#else
  return calloc(bytes == 0 ? 1 : bytes, 1);
#endif
}

static inline void SkHeapFree(void* block) {
#ifdef _WIN32
  if (block != NULL) HeapFree(GetProcessHeap(), 0, block);
#else
  free(block);
#endif
}

/* ---- Blob: a reference-counted byte block ----
 * A 64-bit reference count, changed only atomically, a 64-bit byte count, then the bytes. Whoever
 * drops the last reference frees the block. */
typedef struct SkBlob {
  volatile int64_t references;
  uint64_t size;
  /* `size` bytes follow the header */
} SkBlob;

static inline unsigned char* SkBlobData(SkBlob* blob) { return (unsigned char*)(blob + 1); }

/* A new zero-filled blob of `size` bytes holding one reference; NULL when memory is short. */
static inline SkBlob* SkBlobCreate(uint64_t size) {
  SkBlob* blob;
  if (size > (uint64_t)(SIZE_MAX - sizeof(SkBlob))) return NULL;
  blob = (SkBlob*)SkHeapAlloc(sizeof(SkBlob) + (size_t)size);
  if (blob == NULL) return NULL;
  blob->references = 1;
  blob->size = size;
  return blob;
}

static inline void SkBlobAddRef(SkBlob* blob) {
#ifdef _WIN32
  InterlockedIncrement64((volatile LONG64*)&blob->references);
#else
  __atomic_add_fetch(&blob->references, 1, __ATOMIC_RELAXED);
#endif
}

/* Drops one reference; frees the blob with the last. NULL is ignored. */
static inline void SkBlobRelease(SkBlob* blob) {
  int64_t left;
  if (blob == NULL) return;
#ifdef _WIN32
  left = InterlockedDecrement64((volatile LONG64*)&blob->references);
#else
  left = __atomic_sub_fetch(&blob->references, 1, __ATOMIC_ACQ_REL);
#endif
  if (left == 0) SkHeapFree(blob);
}

/* A DWORD parameter: a blob of exactly 4 bytes holding an unsigned 32-bit value, little-endian. */
static inline SkBlob* SkDwordCreate(uint32_t value) {
  SkBlob* blob = SkBlobCreate(4);
  if (blob != NULL) {
    unsigned char* p = SkBlobData(blob);
    p[0] = (unsigned char)value;
    p[1] = (unsigned char)(value >> 8);
    p[2] = (unsigned char)(value >> 16);
    p[3] = (unsigned char)(value >> 24);
  }
  return blob;
}

/* Nonzero when `blob` is a DWORD parameter; its value goes to *value. */
static inline int SkDwordRead(const SkBlob* blob, uint32_t* value) {
  const unsigned char* p;
  if (blob == NULL || blob->size != 4) return 0;
  p = (const unsigned char*)(blob + 1);
  *value = (uint32_t)p[0] | ((uint32_t)p[1] << 8) | ((uint32_t)p[2] << 16) | ((uint32_t)p[3] << 24);
  return 1;
}

/* ---- Wide strings that cross the boundary ----
 * One heap block: the length in UTF-16 units, then the units, terminated by a 0 unit (not counted). */
typedef struct SkString {
  uint32_t length;
  uint32_t reserved; /* 0 */
  uint16_t text[1];  /* length + 1 units */
} SkString;

/* A new string holding a copy of `length` units at `text` (text may be NULL when length is 0). */
static inline SkString* SkStringCreate(const uint16_t* text, uint32_t length) {
  SkString* s = (SkString*)SkHeapAlloc(offsetof(SkString, text) + ((size_t)length + 1) * sizeof(uint16_t));
  if (s == NULL) return NULL;
  s->length = length;
  if (length != 0) memcpy(s->text, text, (size_t)length * sizeof(uint16_t));
  s->text[length] = 0;
  return s;
}

static inline void SkStringFree(SkString* s) { SkHeapFree(s); }

/* A list of strings handed back by the host (EnumerateGroups): one heap block of `count` string
 * pointers, each string a block of its own. Free it whole with SkStringListFree. */
typedef struct SkStringList {
  uint32_t count;
  uint32_t reserved; /* 0 */
  SkString* items[1]; /* `count` entries */
} SkStringList;

static inline void SkStringListFree(SkStringList* list) {
  uint32_t i;
  if (list == NULL) return;
  for (i = 0; i < list->count; ++i) SkStringFree(list->items[i]);
  SkHeapFree(list);
}

/* ---- The component operation table (also the layer table) ---- */
typedef struct SkComponentTable SkComponentTable;
typedef SkComponentTable SkLayerTable;

/* Opens port `port` (its number, chosen by the service) with `path`; `layers` links the component
 * to the layer below (entries 0-3) and to the layer above (the event entry). The table lives only
 * for the call: copy what you keep. */
typedef uint32_t(SKEIN_CALL* SkOpenFn)(uint32_t port, SkString* path, const SkLayerTable* layers);
typedef uint32_t(SKEIN_CALL* SkCloseFn)(uint32_t port);
typedef uint32_t(SKEIN_CALL* SkWriteFn)(uint32_t port, SkBlob* data, uint32_t* written);
typedef uint32_t(SKEIN_CALL* SkIoctlFn)(uint32_t port, uint32_t code, SkBlob* input, SkBlob** output);
typedef void(SKEIN_CALL* SkEventFn)(uint32_t port, uint32_t event, SkBlob* data);

struct SkComponentTable {
  SkOpenFn Open;   /* entry 0 */
  SkCloseFn Close; /* entry 1 */
  SkWriteFn Write; /* entry 2 */
  SkIoctlFn Ioctl; /* entry 3 */
  SkEventFn Event; /* entry 4: the event sink */
};

/* ---- The host service table ----
 * Entries 0-7 read and change the service's persistent properties ("/"-separated paths); the
 * results are nonzero when found or on success. Entry 8 asks the service to enumerate a port. */
typedef struct SkHostTable {
  int32_t(SKEIN_CALL* EnumerateGroups)(SkString* path, SkStringList** names);
  int32_t(SKEIN_CALL* GetBinary)(SkString* path, SkBlob** value);
  int32_t(SKEIN_CALL* GetNumber)(SkString* path, uint32_t* value);
  int32_t(SKEIN_CALL* GetString)(SkString* path, SkString** value);
  int32_t(SKEIN_CALL* Delete)(SkString* path);
  int32_t(SKEIN_CALL* SetBinary)(SkString* path, SkBlob* value);
  int32_t(SKEIN_CALL* SetNumber)(SkString* path, uint32_t value);
  int32_t(SKEIN_CALL* SetString)(SkString* path, SkString* value);
  uint32_t(SKEIN_CALL* EnumeratePort)(SkString* path, SkString* value);
} SkHostTable;

/* ---- The exports ---- */
typedef int32_t(SKEIN_CALL* SkInitializeFn)(const SkHostTable* host, SkComponentTable* ops);
typedef int32_t(SKEIN_CALL* SkUnloadFn)(void);

#define SKEIN_INITIALIZE_NAME "InitializeSkeinComponent"
#define SKEIN_UNLOAD_NAME "UnloadSkeinComponent"

#ifdef __cplusplus
}
#endif

#endif /* SKEIN_COMPONENT_H */
