/* test_component: a component module for the tests, steered and observed through the service's
 * properties (the host table).
 *
 * Its name is its own file's bare name without extension ("test_component", "test_a", ...), so
 * several copies of this one module can stand in one stack. Settings, read through the host table:
 *
 *   /testmodule/<name>/refuseInit  number; 1: InitializeSkeinComponent returns 0
 *   /testmodule/<name>/entries     number; bit mask of the entries filled (1 Open, 2 Close,
 *                                  4 Write, 8 Ioctl, 16 event sink); all five when missing
 *   /testmodule/<name>/openResult  number returned by Open (0 when missing); read inside Open
 *   /testmodule/<name>/quiet       number; 1: calls on ports opened from now on are not recorded
 *   /testmodule/<name>/writeDelayMs  number; every Write on ports opened from now on first sleeps
 *                                  that long (a slow device)
 *
 * Every call is appended as "<name>:<op>:<port>;" to the string property "/testmodule/calls" (ops:
 * init, open, close, write, ioctl, event, unload; init and unload carry port 0).
 *
 *   Open     keeps the layer table for the port (unless openResult is nonzero).
 *   Close    forgets the port and passes the Close to the layer below, as every layer of a stack
 *            must (the service closes only the top); an unknown port answers SKR_INVALID_HANDLE,
 *            and a port with a Write still in progress SKR_FAILED (the service must never close
 *            under a call).
 *   Write    passes the data to the layer below when there is one; otherwise drops it and reports
 *            every byte written.
 *   Ioctl    TEST_RAISE_EVENT (0x7FFF0001) with a DWORD event identifier raises that event to the
 *            layer above, carrying a blob with this module's name (ASCII, no terminator); the
 *            result is 0 and there is no output (SKR_INVALID_SIZE without a DWORD).
 *            TEST_HOLD_WRITES (0x1FFF0003) with a DWORD port number holds every Write of that port
 *            before it does anything, until the same request with 0 lets them go; a Write held
 *            for over 30 s gives up with SKR_SYSTEM_ERROR. TEST_HELD_WRITES (0x1FFF0006) answers a
 *            DWORD: how many Writes are held now. Both act on the module as a whole, whatever
 *            port they are sent to.
 *            TEST_ENUMERATE (0x1FFF0004) with a UTF-16 port path (no terminator) calls the host's
 *            EnumeratePort for that path with the value "probe" from inside this Ioctl;
 *            TEST_ENUMERATE_ON_THREAD (0x1FFF0005) does the same on a thread of the module's own
 *            and waits for it. Both answer a DWORD: EnumeratePort's result.
 *            Other codes go to the layer below, or answer SKR_INVALID_PARAMETER at the bottom.
 *   event    events from below pass up unchanged.
 * An unknown port answers SKR_INVALID_HANDLE to Write and Ioctl.
 *
 * Built with TEST_COMPONENT_NO_EXPORT it exports nothing (test_noexport). */
#ifndef _WIN32
#ifndef _GNU_SOURCE
#define _GNU_SOURCE /* dladdr */
#endif
#include <dlfcn.h>
#endif

#include "module_lock.h"
#include "skein/component.h"
#include "test_gate.h"

#define TEST_RAISE_EVENT 0x7FFF0001u
#define TEST_HOLD_WRITES 0x1FFF0003u
#define TEST_ENUMERATE 0x1FFF0004u
#define TEST_ENUMERATE_ON_THREAD 0x1FFF0005u
#define TEST_HELD_WRITES 0x1FFF0006u
#define HOLD_LIMIT_MS 30000u
#define ALL_ENTRIES 0x1Fu
#define MAX_PORTS 64
#define NAME_UNITS 128
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
static uint16_t g_name[NAME_UNITS];
static uint32_t g_name_length;
static TestPort g_ports[MAX_PORTS];

/* The bare name of this module's file, without folder and extension. */
static void FindOwnName(void) {
  uint16_t path[PATH_UNITS];
  uint32_t length = 0, start = 0, end, i;
#ifdef _WIN32
  HMODULE self = NULL;
  DWORD n;
  if (GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                         (LPCWSTR)(void*)&FindOwnName, &self)) {
    n = GetModuleFileNameW(self, (wchar_t*)path, PATH_UNITS);
    if (n > 0 && n < PATH_UNITS) length = n;
  }
#else
  Dl_info info;
  if (dladdr((void*)&FindOwnName, &info) != 0 && info.dli_fname != NULL) {
    const unsigned char* s = (const unsigned char*)info.dli_fname;
    /* Test file names are ASCII; anything else becomes '?'. */
    for (; s[length] != 0 && length + 1 < PATH_UNITS; ++length) path[length] = s[length] < 0x80 ? s[length] : '?';
  }
#endif
  for (i = 0; i < length; ++i) {
    if (path[i] == '/' || path[i] == '\\') start = i + 1;
  }
  end = length;
  for (i = length; i > start; --i) {
    if (path[i - 1] == '.') {
      end = i - 1;
      break;
    }
  }
  g_name_length = 0;
  for (i = start; i < end && g_name_length + 1 < NAME_UNITS; ++i) g_name[g_name_length++] = path[i];
}

/* Text building in UTF-16 units. */
typedef struct Text {
  uint16_t units[PATH_UNITS];
  uint32_t length;
} Text;

static void AddAscii(Text* t, const char* s) {
  for (; *s != 0 && t->length < PATH_UNITS; ++s) t->units[t->length++] = (uint16_t)(unsigned char)*s;
}

static void AddName(Text* t) {
  uint32_t i;
  for (i = 0; i < g_name_length && t->length < PATH_UNITS; ++i) t->units[t->length++] = g_name[i];
}

static void AddNumber(Text* t, uint32_t value) {
  char digits[11];
  int n = 0;
  do {
    digits[n++] = (char)('0' + value % 10);
    value /= 10;
  } while (value != 0);
  while (n > 0 && t->length < PATH_UNITS) t->units[t->length++] = (uint16_t)digits[--n];
}

/* "/testmodule/<name>/<setting>" as a string the host frees. */
static SkString* SettingPath(const char* setting) {
  Text t;
  t.length = 0;
  AddAscii(&t, "/testmodule/");
  AddName(&t);
  AddAscii(&t, "/");
  AddAscii(&t, setting);
  return SkStringCreate(t.units, t.length);
}

static uint32_t ReadSetting(const char* setting, uint32_t fallback) {
  uint32_t value = 0;
  SkString* path;
  if (g_host == NULL || g_host->GetNumber == NULL) return fallback;
  path = SettingPath(setting);
  if (path == NULL) return fallback;
  return g_host->GetNumber(path, &value) ? value : fallback;
}

/* "/testmodule/calls" as a string the host frees. */
static SkString* CallsPath(void) {
  Text t;
  t.length = 0;
  AddAscii(&t, "/testmodule/calls");
  return SkStringCreate(t.units, t.length);
}

static int IsQuiet(uint32_t number) {
  int i, quiet = 0;
  Lock();
  for (i = 0; i < MAX_PORTS; ++i) {
    if (g_ports[i].used && g_ports[i].number == number) quiet = g_ports[i].quiet;
  }
  Unlock();
  return quiet;
}

/* Appends "<name>:<op>:<port>;" to /testmodule/calls. The read and the write are two host calls:
 * the module lock keeps this module's own records from interleaving. */
static void Record(const char* op, uint32_t port) {
  SkString* path;
  SkString* old = NULL;
  SkString* value;
  Text entry;
  uint32_t old_length;
  if (g_host == NULL || g_host->GetString == NULL || g_host->SetString == NULL) return;
  if (port != 0 && IsQuiet(port)) return;
  entry.length = 0;
  AddName(&entry);
  AddAscii(&entry, ":");
  AddAscii(&entry, op);
  AddAscii(&entry, ":");
  AddNumber(&entry, port);
  AddAscii(&entry, ";");

  Lock();
  path = CallsPath();
  if (path != NULL && !g_host->GetString(path, &old)) old = NULL;
  old_length = old != NULL ? old->length : 0;
  value = (SkString*)SkHeapAlloc(offsetof(SkString, text) + (old_length + entry.length + 1) * sizeof(uint16_t));
  if (value != NULL) {
    value->length = old_length + entry.length;
    if (old_length != 0) memcpy(value->text, old->text, old_length * sizeof(uint16_t));
    memcpy(value->text + old_length, entry.units, entry.length * sizeof(uint16_t));
    value->text[value->length] = 0;
    path = CallsPath();
    if (path != NULL) {
      g_host->SetString(path, value);
    } else {
      SkStringFree(value);
    }
  }
  SkStringFree(old);
  Unlock();
}

/* The port's layer table, copied under the lock; 0 for an unknown port. */
static int FindLayers(uint32_t number, SkLayerTable* layers) {
  int i, found = 0;
  Lock();
  for (i = 0; i < MAX_PORTS; ++i) {
    if (g_ports[i].used && g_ports[i].number == number) {
      *layers = g_ports[i].layers;
      found = 1;
      break;
    }
  }
  Unlock();
  return found;
}

static uint32_t SKEIN_CALL TestOpen(uint32_t number, SkString* path, const SkLayerTable* layers) {
  uint32_t result;
  int quiet = ReadSetting("quiet", 0) == 1;
  uint32_t delay = ReadSetting("writeDelayMs", 0);
  int i;
  SkStringFree(path);
  if (!quiet) Record("open", number);
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
  int i;
  Record("close", number);
  Lock();
  for (i = 0; i < MAX_PORTS; ++i) {
    if (g_ports[i].used && g_ports[i].number == number) {
      g_ports[i].used = 0;
      below = g_ports[i].layers.Close;
      result = g_ports[i].writes_in_progress == 0 ? SKR_SUCCESS : SKR_FAILED;
      break;
    }
  }
  Unlock();
  if (below != NULL) below(number);
  return result;
}

/* Counts a Write of the port in or out; the port's write delay, or -1 for an unknown port. */
static int64_t CountWrite(uint32_t number, int change) {
  int i;
  int64_t delay = -1;
  Lock();
  for (i = 0; i < MAX_PORTS; ++i) {
    if (g_ports[i].used && g_ports[i].number == number) {
      g_ports[i].writes_in_progress += change;
      delay = g_ports[i].write_delay_ms;
      break;
    }
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
  static const char probe[] = "probe";
  uint16_t value[sizeof(probe) - 1];
  if (count > PATH_UNITS) count = PATH_UNITS;
  for (i = 0; i < count; ++i) units[i] = (uint16_t)(bytes[2 * i] | (bytes[2 * i + 1] << 8));
  for (i = 0; i < sizeof(value) / sizeof(value[0]); ++i) value[i] = (uint16_t)probe[i];
  e->result = 0;
  if (g_host != NULL && g_host->EnumeratePort != NULL) {
    e->result = g_host->EnumeratePort(SkStringCreate(units, count), SkStringCreate(value, sizeof(value) / 2));
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
  uint32_t event;
  uint32_t own_result;
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
    SkBlob* data;
    int ok = SkDwordRead(input, &event);
    SkBlobRelease(input);
    if (!ok) return SKR_INVALID_SIZE;
    data = SkBlobCreate(g_name_length);
    if (data == NULL) return SKR_OUT_OF_MEMORY;
    {
      uint32_t i;
      for (i = 0; i < g_name_length; ++i) SkBlobData(data)[i] = (unsigned char)g_name[i];
    }
    if (layers.Event != NULL) {
      layers.Event(number, event, data);
    } else {
      SkBlobRelease(data);
    }
    return SKR_SUCCESS;
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

#ifndef TEST_COMPONENT_NO_EXPORT
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
#else
/* Exports something, only not the entry point: the host must still turn it away. */
SKEIN_EXPORT int32_t SKEIN_CALL TestComponentFill(SkComponentTable* ops) {
  FindOwnName();
  ops->Open = TestOpen;
  ops->Close = TestClose;
  ops->Write = TestWrite;
  ops->Ioctl = TestIoctl;
  ops->Event = TestEvent;
  return 1;
}
#endif
