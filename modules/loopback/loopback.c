/* loopback: a component module whose ports echo what is written to them.
 *
 * It sits at the bottom of a stack (it never calls a layer below) and serves any number of ports.
 *
 *   Write    the written bytes come straight back up as the event LOOPBACK_EVENT_DATA
 *            (0x00070001), whose data is the written blob itself; the write reports every byte
 *            written. An unknown port answers SKR_INVALID_HANDLE.
 *   Ioctl    SK_PORT_LOCK (0x40010001), any input: success; the port's lock state becomes 1.
 *            SK_LOCK_STATE (0x50060009): success, output a DWORD with the port's lock state.
 *            LOOPBACK_SET_LOCK_STATE (0x7FFF0002), input a DWORD: the lock state becomes that
 *            value and the event SK_EVENT_LOCK_CHANGED (0x10060009) goes up carrying the same
 *            DWORD, as a device that was taken or given back by someone else would report it.
 *            A non-DWORD input answers SKR_INVALID_SIZE.
 *            Any other code: SKR_INVALID_PARAMETER.
 *   Event    events from below (if it is ever stacked above something) pass up unchanged.
 *
 * Lock states: 0 free (after Open), 1 locked by the service, any other value as last set through
 * LOOPBACK_SET_LOCK_STATE (the service reads 2 as "held elsewhere" and 3 as "free again").
 *
 * Threads: one lock guards the port list. It is never held while another layer is called, so a
 * layer above may call back into this module from inside an event. */
#include "module_lock.h"
#include "skein/component.h"

#define LOOPBACK_EVENT_DATA 0x00070001u
#define LOOPBACK_SET_LOCK_STATE 0x7FFF0002u

typedef struct LoopbackPort {
  struct LoopbackPort* next;
  uint32_t number;
  uint32_t lock_state;
  SkLayerTable layers;
} LoopbackPort;

static LoopbackPort* g_ports;

/* Under the lock. */
static LoopbackPort* FindPort(uint32_t number) {
  LoopbackPort* port;
  for (port = g_ports; port != NULL; port = port->next) {
    if (port->number == number) return port;
  }
  return NULL;
}

/* The layer above's event entry for a port, copied under the lock; NULL for an unknown port. */
static int EventTarget(uint32_t number, SkEventFn* target) {
  LoopbackPort* port;
  int found;
  Lock();
  port = FindPort(number);
  found = port != NULL;
  *target = found ? port->layers.Event : NULL;
  Unlock();
  return found;
}

/* Hands `data` (and its reference) to the layer above, or drops it when nobody listens. */
static void RaiseUp(SkEventFn target, uint32_t number, uint32_t event, SkBlob* data) {
  if (target != NULL) {
    target(number, event, data);
  } else {
    SkBlobRelease(data);
  }
}

static uint32_t SKEIN_CALL LoopbackOpen(uint32_t number, SkString* path, const SkLayerTable* layers) {
  uint32_t result = SKR_SUCCESS;
  LoopbackPort* port;
  SkStringFree(path);
  Lock();
  if (FindPort(number) != NULL) {
    result = SKR_INVALID_PARAMETER; /* the service never opens one number twice */
  } else if ((port = (LoopbackPort*)SkHeapAlloc(sizeof(LoopbackPort))) == NULL) {
    result = SKR_OUT_OF_MEMORY;
  } else {
    port->number = number;
    port->lock_state = 0;
    if (layers != NULL) port->layers = *layers;
    port->next = g_ports;
    g_ports = port;
  }
  Unlock();
  return result;
}

static uint32_t SKEIN_CALL LoopbackClose(uint32_t number) {
  LoopbackPort** link;
  LoopbackPort* gone = NULL;
  Lock();
  for (link = &g_ports; *link != NULL; link = &(*link)->next) {
    if ((*link)->number == number) {
      gone = *link;
      *link = gone->next;
      break;
    }
  }
  Unlock();
  if (gone == NULL) return SKR_INVALID_HANDLE;
  SkHeapFree(gone);
  return SKR_SUCCESS;
}

static uint32_t SKEIN_CALL LoopbackWrite(uint32_t number, SkBlob* data, uint32_t* written) {
  SkEventFn target;
  if (!EventTarget(number, &target)) {
    SkBlobRelease(data);
    return SKR_INVALID_HANDLE;
  }
  *written = data != NULL ? (uint32_t)data->size : 0;
  /* The written blob itself goes up: its reference passes on with it. */
  RaiseUp(target, number, LOOPBACK_EVENT_DATA, data);
  return SKR_SUCCESS;
}

static uint32_t SKEIN_CALL LoopbackIoctl(uint32_t number, uint32_t code, SkBlob* input, SkBlob** output) {
  uint32_t result = SKR_SUCCESS;
  uint32_t value = 0;
  uint32_t state = 0;
  int has_value = SkDwordRead(input, &value);
  SkEventFn target = NULL;
  LoopbackPort* port;
  SkBlobRelease(input);

  Lock();
  port = FindPort(number);
  if (port == NULL) {
    result = SKR_INVALID_HANDLE;
  } else if (code == SK_PORT_LOCK) {
    port->lock_state = 1;
  } else if (code == SK_LOCK_STATE) {
    state = port->lock_state;
  } else if (code == LOOPBACK_SET_LOCK_STATE) {
    if (!has_value) {
      result = SKR_INVALID_SIZE;
    } else {
      port->lock_state = value;
      target = port->layers.Event;
    }
  } else {
    result = SKR_INVALID_PARAMETER;
  }
  Unlock();

  if (result != SKR_SUCCESS) return result;
  if (code == SK_LOCK_STATE) {
    *output = SkDwordCreate(state);
    if (*output == NULL) return SKR_OUT_OF_MEMORY;
  } else if (code == LOOPBACK_SET_LOCK_STATE && target != NULL) {
    SkBlob* notice = SkDwordCreate(value);
    if (notice == NULL) return SKR_OUT_OF_MEMORY;
    target(number, SK_EVENT_LOCK_CHANGED, notice);
  }
  return SKR_SUCCESS;
}

static void SKEIN_CALL LoopbackEvent(uint32_t number, uint32_t event, SkBlob* data) {
  SkEventFn target;
  if (!EventTarget(number, &target)) target = NULL;
  RaiseUp(target, number, event, data);
}

SKEIN_EXPORT int32_t SKEIN_CALL InitializeSkeinComponent(const SkHostTable* host, SkComponentTable* ops) {
  (void)host; /* the loopback keeps no properties */
  ops->Open = LoopbackOpen;
  ops->Close = LoopbackClose;
  ops->Write = LoopbackWrite;
  ops->Ioctl = LoopbackIoctl;
  ops->Event = LoopbackEvent;
  return 1;
}

SKEIN_EXPORT int32_t SKEIN_CALL UnloadSkeinComponent(void) {
  /* Ports the service left open die with the module. */
  LoopbackPort* port;
  Lock();
  port = g_ports;
  g_ports = NULL;
  Unlock();
  while (port != NULL) {
    LoopbackPort* next = port->next;
    SkHeapFree(port);
    port = next;
  }
  return 1;
}
