/* test_component: a component module for the tests, steered and observed through the service's
 * properties. Its name is its file's bare name ("test_component", "test_a", ...; the build defines
 * TEST_MODULE_NAME), so several copies can stand in one stack. Settings under /testmodule/<name>/, all numbers:
 *   refuseInit 1: init returns 0;  openResult: what Open returns;  quiet 1: nothing more is recorded;
 *   writeDelayMs: every Write first sleeps that long;  openEvent: an event Open raises up,
 *   openEventCount times (default 1).
 * Every call is appended as "<name>:<op>:<port>;" to "/testmodule/calls" (init and unload: port 0).
 * Close passes down as every layer must and answers SKR_FAILED while a Write of the port is in
 * progress; Write passes down or at the bottom takes every byte; Event passes up. Own controls:
 * TEST_RAISE_EVENT (DWORD id) raises it up with the module's name as data; TEST_HOLD_WRITES (DWORD
 * port, 0 lets go, module-wide) holds that port's Writes (SKR_SYSTEM_ERROR after 30 s) and
 * TEST_HELD_WRITES counts them; TEST_ENUMERATE (UTF-16 path) calls the host's EnumeratePort with
 * "probe", inline or (_ON_THREAD) on a thread it waits for, and answers the result as a DWORD.
 * Other controls go down, or fail with SKR_INVALID_PARAMETER at the bottom. */
#include <stdio.h>

#include "device/device_sys.h"
#include "skein/component.h"

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
#define HOLD_LIMIT_S 30u
#define MAX_PORTS 64
#define PATH_UNITS 256

typedef struct TestPort {
  int used;
  uint32_t number;
  SkLayerTable layers;
  uint32_t writes_in_progress;
} TestPort;

static const SkHostTable* g_host;
static const char g_name[] = TEST_MODULE_NAME; /* the file's bare name, given by the build */
static TestPort g_ports[MAX_PORTS];

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

/* The write gate: while it is closed for a port number, that port's Writes wait at it. Its
 * condition is made by the first init of a load and never destroyed (loads of one file share it). */
static DevCondition g_gate_changed;
static int g_gate_ready;
static uint32_t g_gate_closed_for; /* 0: open for every port */
static uint32_t g_gate_waiting;

/* Returns 1 once the gate is open for `port`, 0 when it stayed closed for HOLD_LIMIT_S seconds. */
static int GatePass(uint32_t port) {
  const uint64_t deadline = DevNowMs() + HOLD_LIMIT_S * 1000u;
  uint64_t now;
  int open;
  DevLock();
  ++g_gate_waiting;
  while (!(open = port == 0 || g_gate_closed_for != port) && (now = DevNowMs()) < deadline) {
    DevConditionWait(&g_gate_changed, (uint32_t)(deadline - now));
  }
  --g_gate_waiting;
  DevUnlock();
  return open;
}

/* Sleeps `ms`: a wait on the gate's condition that only the clock ends. */
static void SleepMs(uint32_t ms) {
  const uint64_t deadline = DevNowMs() + ms;
  uint64_t now;
  DevLock();
  while ((now = DevNowMs()) < deadline) DevConditionWait(&g_gate_changed, (uint32_t)(deadline - now));
  DevUnlock();
}

/* The port's slot, or NULL for an unknown port; the module lock must be held. */
static TestPort* FindPort(uint32_t number) {
  int i;
  for (i = 0; i < MAX_PORTS; ++i) {
    if (g_ports[i].used && g_ports[i].number == number) return &g_ports[i];
  }
  return NULL;
}

/* Appends "<name>:<op>:<port>;" to /testmodule/calls. The read and the write are two host calls:
 * the module lock keeps this module's own records from interleaving. */
static void Record(const char* op, uint32_t port) {
  SkString* old = NULL;
  SkString* value;
  char entry[PATH_UNITS];
  uint32_t old_length, length, i;
  if (g_host == NULL || g_host->GetString == NULL || g_host->SetString == NULL) return;
  if (ReadSetting("quiet", 0) == 1) return;
  length = (uint32_t)snprintf(entry, PATH_UNITS, "%s:%s:%u;", g_name, op, (unsigned)port);

  DevLock();
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
  DevUnlock();
}

/* The port's layer table, copied under the lock, and its count of Writes in progress changed by
 * `writes`; 0 for an unknown port. */
static int FindLayers(uint32_t number, SkLayerTable* layers, int writes) {
  TestPort* port;
  DevLock();
  port = FindPort(number);
  if (port != NULL) {
    *layers = port->layers;
    port->writes_in_progress += writes;
  }
  DevUnlock();
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
  uint32_t result, open_event = ReadSetting("openEvent", 0), raised;
  int i;
  SkStringFree(path);
  Record("open", number);
  if (open_event != 0 && layers != NULL) {
    for (raised = ReadSetting("openEventCount", 1); raised > 0; --raised) RaiseUp(number, open_event, layers);
  }
  result = ReadSetting("openResult", SKR_SUCCESS);
  if (result != SKR_SUCCESS) return result;
  DevLock();
  result = SKR_OUT_OF_MEMORY; /* no free slot */
  for (i = 0; i < MAX_PORTS; ++i) {
    if (!g_ports[i].used) {
      memset(&g_ports[i], 0, sizeof(g_ports[i]));
      g_ports[i].used = 1;
      g_ports[i].number = number;
      if (layers != NULL) g_ports[i].layers = *layers;
      result = SKR_SUCCESS;
      break;
    }
  }
  DevUnlock();
  return result;
}

static uint32_t SKEIN_CALL TestClose(uint32_t number) {
  uint32_t result = SKR_INVALID_HANDLE;
  SkCloseFn below = NULL;
  TestPort* port;
  Record("close", number);
  DevLock();
  port = FindPort(number);
  if (port != NULL) {
    port->used = 0;
    below = port->layers.Close;
    result = port->writes_in_progress == 0 ? SKR_SUCCESS : SKR_FAILED;
  }
  DevUnlock();
  if (below != NULL) below(number);
  return result;
}

static uint32_t SKEIN_CALL TestWrite(uint32_t number, SkBlob* data, uint32_t* written) {
  SkLayerTable layers;
  uint32_t result, delay = ReadSetting("writeDelayMs", 0);
  Record("write", number);
  if (!FindLayers(number, &layers, 1)) {
    SkBlobRelease(data);
    return SKR_INVALID_HANDLE;
  }
  if (!GatePass(number)) {
    result = SKR_SYSTEM_ERROR;
    SkBlobRelease(data);
  } else {
    if (delay > 0) SleepMs(delay);
    if (layers.Write != NULL) {
      result = layers.Write(number, data, written);
    } else {
      *written = data != NULL ? (uint32_t)data->size : 0;
      SkBlobRelease(data);
      result = SKR_SUCCESS;
    }
  }
  FindLayers(number, &layers, -1);
  return result;
}

/* TEST_ENUMERATE and TEST_ENUMERATE_ON_THREAD: the path handed in, and EnumeratePort's answer. */
typedef struct Enumeration {
  SkBlob* path; /* UTF-16, no terminator */
  uint32_t result;
} Enumeration;

static void Enumerate(void* arg) {
  Enumeration* e = (Enumeration*)arg;
  SkString* path = SkStringCreate((const uint16_t*)SkBlobData(e->path), (uint32_t)(e->path->size / 2));
  e->result = g_host->EnumeratePort(path, AsciiString("probe"));
}

static uint32_t SKEIN_CALL TestIoctl(uint32_t number, uint32_t code, SkBlob* input, SkBlob** output) {
  SkLayerTable layers;
  Enumeration e;
  DevThread thread;
  uint32_t value = 0;
  int ok;
  if (code == TEST_HOLD_WRITES || code == TEST_HELD_WRITES) {
    /* Requests to the module as a whole: any port number will do. */
    ok = code == TEST_HELD_WRITES || SkDwordRead(input, &value);
    SkBlobRelease(input);
    if (!ok) return SKR_INVALID_SIZE;
    DevLock();
    if (code == TEST_HOLD_WRITES) g_gate_closed_for = value;
    if (code == TEST_HELD_WRITES) *output = SkDwordCreate(g_gate_waiting);
    DevConditionBroadcast(&g_gate_changed);
    DevUnlock();
    return SKR_SUCCESS;
  }
  Record("ioctl", number);
  if (!FindLayers(number, &layers, 0)) {
    SkBlobRelease(input);
    return SKR_INVALID_HANDLE;
  }
  if (code == TEST_ENUMERATE || code == TEST_ENUMERATE_ON_THREAD) {
    e.path = input;
    ok = input != NULL && (code == TEST_ENUMERATE ? (Enumerate(&e), 1) : DevThreadStart(&thread, Enumerate, &e));
    if (ok && code == TEST_ENUMERATE_ON_THREAD) DevThreadJoin(&thread); /* a thread it waits for */
    SkBlobRelease(input);
    if (ok) *output = SkDwordCreate(e.result);
    return ok ? SKR_SUCCESS : input == NULL ? SKR_INVALID_SIZE : SKR_SYSTEM_ERROR;
  }
  if (code == TEST_RAISE_EVENT) {
    ok = SkDwordRead(input, &value);
    SkBlobRelease(input);
    return ok ? RaiseUp(number, value, &layers) : SKR_INVALID_SIZE;
  }
  if (layers.Ioctl != NULL) return layers.Ioctl(number, code, input, output);
  SkBlobRelease(input);
  return SKR_INVALID_PARAMETER;
}

static void SKEIN_CALL TestEvent(uint32_t number, uint32_t event, SkBlob* data) {
  SkLayerTable layers;
  Record("event", number);
  if (FindLayers(number, &layers, 0) && layers.Event != NULL) {
    layers.Event(number, event, data);
  } else {
    SkBlobRelease(data);
  }
}

SKEIN_EXPORT int32_t SKEIN_CALL InitializeSkeinComponent(const SkHostTable* host, SkComponentTable* ops) {
  g_host = host;
  Record("init", 0);
  if (!g_gate_ready) g_gate_ready = DevConditionInit(&g_gate_changed);
  if (ReadSetting("refuseInit", 0) == 1 || !g_gate_ready) {
    g_host = NULL; /* refused: the host table is not ours to keep */
    return 0;
  }
  *ops = (SkComponentTable){TestOpen, TestClose, TestWrite, TestIoctl, TestEvent};
  return 1;
}

SKEIN_EXPORT int32_t SKEIN_CALL UnloadSkeinComponent(void) {
  Record("unload", 0);
  g_host = NULL;
  DevLock();
  memset(g_ports, 0, sizeof(g_ports));
  DevUnlock();
  return 1;
}
