/* test_component: a component module for the tests, steered and observed through the service's
 * properties (the host table). Its name is its file's bare name ("test_component", "test_a", ...),
 * so several copies can stand in one stack. Settings under /testmodule/<name>/, all numbers:
 *   refuseInit    1: InitializeSkeinComponent returns 0
 *   entries       bit mask of the entries filled (1 Open, 2 Close, 4 Write, 8 Ioctl, 16 Event); all when missing
 *   openResult    what Open returns (0 when missing), read inside Open
 *   quiet         1: calls on ports opened from now on are not recorded
 *   writeDelayMs  every Write on ports opened from now on first sleeps that long (a slow device)
 *   openEvent     an event id that Open raises upwards (as TEST_RAISE_EVENT does) first thing
 * Every call is appended as "<name>:<op>:<port>;" to the string "/testmodule/calls" (ops: init,
 * open, close, write, ioctl, event, unload; init and unload carry port 0).
 *   Open   keeps the layer table for the port (unless openResult is nonzero).
 *   Close  forgets the port and passes the Close down, as every layer must (the service closes only
 *          the top); SKR_FAILED when a Write of the port is still in progress.
 *   Write  passes the data down, or at the bottom drops it and reports every byte written.
 *   Ioctl  TEST_RAISE_EVENT with a DWORD event id raises that event upwards, carrying this module's
 *          name (ASCII, no terminator); SKR_INVALID_SIZE without a DWORD.
 *          TEST_HOLD_WRITES with a DWORD port number holds every Write of that port until the same
 *          request with 0 (SKR_SYSTEM_ERROR after 30 s); TEST_HELD_WRITES answers how many Writes are
 *          held. Both act on the whole module, whatever port they are sent to.
 *          TEST_ENUMERATE with a UTF-16 port path calls the host's EnumeratePort for it with the value
 *          "probe", inside this Ioctl (TEST_ENUMERATE_ON_THREAD: on a thread of its own, waited for);
 *          the answer is EnumeratePort's result as a DWORD.
 *          Other codes go down, or answer SKR_INVALID_PARAMETER at the bottom.
 *   Event  passes events from below up unchanged.
 * An unknown port answers SKR_INVALID_HANDLE. With TEST_COMPONENT_NO_EXPORT it lacks the entry
 * point (test_noexport). */
#ifndef _WIN32
#ifndef _GNU_SOURCE
#define _GNU_SOURCE /* dladdr */
#endif
#include <dlfcn.h>
#endif
#include <stdio.h>

#include "module_lock.h"
#include "skein/component.h"
#include "test_gate.h"

#ifdef TEST_COMPONENT_NO_EXPORT
/* Exports something, only not the entry point: the host must still turn it away. */
#define InitializeSkeinComponent TestComponentInitialize
#define UnloadSkeinComponent TestComponentUnload
#endif

#define TEST_RAISE_EVENT 0x7FFF0001u
#define TEST_HOLD_WRITES 0x1FFF0003u
#define TEST_ENUMERATE 0x1FFF0004u
#define TEST_ENUMERATE_ON_THREAD 0x1FFF0005u
#define TEST_HELD_WRITES 0x1FFF0006u
#define HOLD_LIMIT_MS 30000u
#define ALL_ENTRIES 0x1Fu
#define MAX_PORTS 64
#define NAME_CHARS 64
#define PATH_UNITS 256

typedef struct TestPort {
  int used;
  uint32_t number;
  SkLayerTable layers;
  int quiet;
  uint32_t write_delay_ms;
  uint32_t writes_in_progress;
} TestPort;

static const SkHostTable* g_host;
static char g_name[NAME_CHARS]; /* test module names are ASCII */
static TestPort g_ports[MAX_PORTS];

/* The bare name of this module's file, without folder and extension. */
static void FindOwnName(void) {
  char path[PATH_UNITS] = "";
  const char *start = path, *end, *p;
#ifdef _WIN32
  HMODULE self = NULL;
  if (GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                         (LPCSTR)(void*)&FindOwnName, &self)) {
    DWORD n = GetModuleFileNameA(self, path, PATH_UNITS);
    if (n >= PATH_UNITS) path[0] = 0;
  }
#else
  Dl_info info;
  if (dladdr((void*)&FindOwnName, &info) != 0 && info.dli_fname != NULL) {
    snprintf(path, PATH_UNITS, "%s", info.dli_fname);
  }
#endif
  for (p = path; *p != 0; ++p) {
    if (*p == '/' || *p == '\\') start = p + 1;
  }
  end = strrchr(start, '.');
  if (end == NULL) end = start + strlen(start);
  snprintf(g_name, NAME_CHARS, "%.*s", (int)(end - start), start);
}

/* ASCII text as a string the host frees. */
static SkString* AsciiString(const char* text) {
  uint16_t units[PATH_UNITS];
  uint32_t n;
  for (n = 0; text[n] != 0 && n < PATH_UNITS; ++n) units[n] = (uint16_t)(unsigned char)text[n];
  return SkStringCreate(units, n);
}

static uint32_t ReadSetting(const char* setting, uint32_t fallback) {
  char path[PATH_UNITS];
  uint32_t value = 0;
  SkString* s;
  if (g_host == NULL || g_host->GetNumber == NULL) return fallback;
  snprintf(path, PATH_UNITS, "/testmodule/%s/%s", g_name, setting);
  s = AsciiString(path);
  return s != NULL && g_host->GetNumber(s, &value) ? value : fallback;
}

/* The port's slot, or NULL for an unknown port; the module lock must be held. */
static TestPort* FindPort(uint32_t number) {
  int i;
  for (i = 0; i < MAX_PORTS; ++i) {
    if (g_ports[i].used && g_ports[i].number == number) return &g_ports[i];
  }
  return NULL;
}

static int IsQuiet(uint32_t number) {
  TestPort* port;
  int quiet;
  Lock();
  port = FindPort(number);
  quiet = port != NULL && port->quiet;
  Unlock();
  return quiet;
}

/* Appends "<name>:<op>:<port>;" to /testmodule/calls. The read and the write are two host calls:
 * the module lock keeps this module's own records from interleaving. */
static void Record(const char* op, uint32_t port) {
  SkString* old = NULL;
  SkString* value;
  char entry[PATH_UNITS];
  uint32_t old_length, length, i;
  if (g_host == NULL || g_host->GetString == NULL || g_host->SetString == NULL) return;
  if (port != 0 && IsQuiet(port)) return;
  length = (uint32_t)snprintf(entry, PATH_UNITS, "%s:%s:%u;", g_name, op, (unsigned)port);

  Lock();
  if (!g_host->GetString(AsciiString("/testmodule/calls"), &old)) old = NULL;
  old_length = old != NULL ? old->length : 0;
  value = (SkString*)SkHeapAlloc(offsetof(SkString, text) + (old_length + length + 1) * sizeof(uint16_t));
  if (value != NULL) {
    value->length = old_length + length;
    if (old_length != 0) memcpy(value->text, old->text, old_length * sizeof(uint16_t));
    for (i = 0; i < length; ++i) value->text[old_length + i] = (uint16_t)(unsigned char)entry[i];
    value->text[value->length] = 0;
    g_host->SetString(AsciiString("/testmodule/calls"), value);
  }
  SkStringFree(old);
  Unlock();
}

/* The port's layer table, copied under the lock; 0 for an unknown port. */
static int FindLayers(uint32_t number, SkLayerTable* layers) {
  TestPort* port;
  Lock();
  port = FindPort(number);
  if (port != NULL) *layers = port->layers;
  Unlock();
  return port != NULL;
}

/* Raises `event` to the layer above, with this module's name as its data. */
static uint32_t RaiseUp(uint32_t number, uint32_t event, const SkLayerTable* layers) {
  SkBlob* data = SkBlobCreate(strlen(g_name));
  if (data == NULL) return SKR_OUT_OF_MEMORY;
  memcpy(SkBlobData(data), g_name, strlen(g_name));
  if (layers->Event != NULL) {
    layers->Event(number, event, data);
  } else {
    SkBlobRelease(data);
  }
  return SKR_SUCCESS;
}

static uint32_t SKEIN_CALL TestOpen(uint32_t number, SkString* path, const SkLayerTable* layers) {
  uint32_t result;
  int quiet = ReadSetting("quiet", 0) == 1;
  uint32_t delay = ReadSetting("writeDelayMs", 0);
  uint32_t open_event = ReadSetting("openEvent", 0);
  int i;
  SkStringFree(path);
  if (!quiet) Record("open", number);
  if (open_event != 0 && layers != NULL) RaiseUp(number, open_event, layers);
  result = ReadSetting("openResult", SKR_SUCCESS);
  if (result != SKR_SUCCESS) return result;
  Lock();
  result = SKR_OUT_OF_MEMORY; /* no free slot */
  for (i = 0; i < MAX_PORTS; ++i) {
    if (!g_ports[i].used) {
      memset(&g_ports[i], 0, sizeof(g_ports[i]));
      g_ports[i].used = 1;
      g_ports[i].number = number;
      g_ports[i].quiet = quiet;
      g_ports[i].write_delay_ms = delay;
      if (layers != NULL) g_ports[i].layers = *layers;
      result = SKR_SUCCESS;
      break;
    }
  }
  Unlock();
  return result;
}

static uint32_t SKEIN_CALL TestClose(uint32_t number) {
  uint32_t result = SKR_INVALID_HANDLE;
  SkCloseFn below = NULL;
  TestPort* port;
  Record("close", number);
  Lock();
  port = FindPort(number);
  if (port != NULL) {
    port->used = 0;
    below = port->layers.Close;
    result = port->writes_in_progress == 0 ? SKR_SUCCESS : SKR_FAILED;
  }
  Unlock();
  if (below != NULL) below(number);
  return result;
}

/* Counts a Write of the port in or out; the port's write delay, or -1 for an unknown port. */
static int64_t CountWrite(uint32_t number, int change) {
  TestPort* port;
  int64_t delay = -1;
  Lock();
  port = FindPort(number);
  if (port != NULL) {
    port->writes_in_progress += change;
    delay = port->write_delay_ms;
  }
  Unlock();
  return delay;
}

static uint32_t SKEIN_CALL TestWrite(uint32_t number, SkBlob* data, uint32_t* written) {
  SkLayerTable layers;
  int64_t delay;
  uint32_t result;
  Record("write", number);
  if (!FindLayers(number, &layers) || (delay = CountWrite(number, 1)) < 0) {
    SkBlobRelease(data);
    return SKR_INVALID_HANDLE;
  }
  if (!GatePass(number, HOLD_LIMIT_MS)) {
    result = SKR_SYSTEM_ERROR;
    SkBlobRelease(data);
  } else {
    if (delay > 0) GateSleepMs((uint32_t)delay);
    if (layers.Write != NULL) {
      result = layers.Write(number, data, written);
    } else {
      *written = data != NULL ? (uint32_t)data->size : 0;
      SkBlobRelease(data);
      result = SKR_SUCCESS;
    }
  }
  CountWrite(number, -1);
  return result;
}

/* TEST_ENUMERATE and TEST_ENUMERATE_ON_THREAD: the path handed in, and EnumeratePort's answer. */
typedef struct Enumeration {
  SkBlob* path; /* UTF-16, no terminator; owned */
  uint32_t result;
} Enumeration;

static void Enumerate(void* arg) {
  Enumeration* e = (Enumeration*)arg;
  const unsigned char* bytes = SkBlobData(e->path);
  uint16_t units[PATH_UNITS];
  uint32_t count = (uint32_t)(e->path->size / 2), i;
  if (count > PATH_UNITS) count = PATH_UNITS;
  for (i = 0; i < count; ++i) units[i] = (uint16_t)(bytes[2 * i] | (bytes[2 * i + 1] << 8));
  e->result = 0;
  if (g_host != NULL && g_host->EnumeratePort != NULL) {
    e->result = g_host->EnumeratePort(SkStringCreate(units, count), AsciiString("probe"));
  }
}

/* Answers one of the module's own requests into *output; 0 when `code` is not one of them. */
static int OwnRequest(uint32_t code, SkBlob* input, SkBlob** output, uint32_t* result) {
  uint32_t value = 0;
  if (code == TEST_HOLD_WRITES) {
    *result = SkDwordRead(input, &value) ? SKR_SUCCESS : SKR_INVALID_SIZE;
    if (*result == SKR_SUCCESS) GateSet(value);
  } else if (code == TEST_HELD_WRITES) {
    *output = SkDwordCreate(GateWaiting());
    *result = *output != NULL ? SKR_SUCCESS : SKR_OUT_OF_MEMORY;
  } else if (code == TEST_ENUMERATE || code == TEST_ENUMERATE_ON_THREAD) {
    Enumeration e;
    e.path = input;
    e.result = 0;
    if (input == NULL) {
      *result = SKR_INVALID_SIZE;
      return 1;
    }
    if (code == TEST_ENUMERATE) {
      Enumerate(&e);
    } else if (!GateRunOnThread(Enumerate, &e)) {
      *result = SKR_SYSTEM_ERROR;
      return 1;
    }
    *output = SkDwordCreate(e.result);
    *result = *output != NULL ? SKR_SUCCESS : SKR_OUT_OF_MEMORY;
  } else {
    return 0;
  }
  return 1;
}

static uint32_t SKEIN_CALL TestIoctl(uint32_t number, uint32_t code, SkBlob* input, SkBlob** output) {
  SkLayerTable layers;
  uint32_t event, own_result;
  if (code == TEST_HOLD_WRITES || code == TEST_HELD_WRITES) {
    /* Requests to the module as a whole: any port number will do. */
    OwnRequest(code, input, output, &own_result);
    SkBlobRelease(input);
    return own_result;
  }
  Record("ioctl", number);
  if (!FindLayers(number, &layers)) {
    SkBlobRelease(input);
    return SKR_INVALID_HANDLE;
  }
  if (OwnRequest(code, input, output, &own_result)) {
    SkBlobRelease(input);
    return own_result;
  }
  if (code == TEST_RAISE_EVENT) {
    int ok = SkDwordRead(input, &event);
    SkBlobRelease(input);
    return ok ? RaiseUp(number, event, &layers) : SKR_INVALID_SIZE;
  }
  if (layers.Ioctl != NULL) return layers.Ioctl(number, code, input, output);
  SkBlobRelease(input);
  return SKR_INVALID_PARAMETER;
}

static void SKEIN_CALL TestEvent(uint32_t number, uint32_t event, SkBlob* data) {
  SkLayerTable layers;
  Record("event", number);
  if (FindLayers(number, &layers) && layers.Event != NULL) {
    layers.Event(number, event, data);
  } else {
    SkBlobRelease(data);
  }
}

SKEIN_EXPORT int32_t SKEIN_CALL InitializeSkeinComponent(const SkHostTable* host, SkComponentTable* ops) {
  uint32_t entries;
  g_host = host;
  FindOwnName();
  Record("init", 0);
  if (ReadSetting("refuseInit", 0) == 1) {
    g_host = NULL; /* refused: the host table is not ours to keep */
    return 0;
  }
  entries = ReadSetting("entries", ALL_ENTRIES);
  if (entries & 1u) ops->Open = TestOpen;
  if (entries & 2u) ops->Close = TestClose;
  if (entries & 4u) ops->Write = TestWrite;
  if (entries & 8u) ops->Ioctl = TestIoctl;
  if (entries & 16u) ops->Event = TestEvent;
  return 1;
}

SKEIN_EXPORT int32_t SKEIN_CALL UnloadSkeinComponent(void) {
  Record("unload", 0);
  g_host = NULL;
  Lock();
  memset(g_ports, 0, sizeof(g_ports));
  Unlock();
  return 1;
}
