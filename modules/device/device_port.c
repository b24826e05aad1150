/* The device modules' shared core (device_port.h describes it). */
#include "device_port.h"

#define READ_CHUNK 4096u
/* How long a suspend waits for the port's thread to close the device. */
#define SUSPEND_CLOSE_WAIT_MS 5000u

typedef struct DevPort {
  struct DevPort* next;
  uint32_t number;
  SkLayerTable layers;
  void* settings;
  DevCommonSettings common;
  DevText name;
  DevText path;
  DevWaker waker;
  DevCondition changed; /* broadcast on every change below */
  DevThread thread;
  /* Under the module lock: */
  int closing;
  int suspended;
  int holding;          /* the thread is connecting or holds a device */
  int offline_told;     /* SK_EVENT_DEVICE_OFFLINE went up since the last online */
  int writing;          /* a write is in flight on `device` */
  DevDevice* device;    /* the device while it is online, else NULL */
  uint32_t lines;
  int write_lost;       /* a write saw the device go; `write_loss` says why */
  DevText write_loss;
  unsigned char buffer[READ_CHUNK]; /* the thread's own */
} DevPort;

const SkHostTable* g_device_host;
static const DevDriver* g_driver;
static DevPort* g_ports;

/* Under the lock. */
static DevPort* FindPort(uint32_t number) {
  DevPort* port;
  for (port = g_ports; port != NULL; port = port->next) {
    if (port->number == number) return port;
  }
  return NULL;
}

/* Hands `data` (and its reference) to the layer above. The layer table never changes after Open. */
static void RaiseUp(DevPort* port, uint32_t event, SkBlob* data) {
  if (port->layers.Event != NULL && data != NULL) {
    port->layers.Event(port->number, event, data);
  } else {
    SkBlobRelease(data);
  }
}

static void RaiseText(DevPort* port, uint32_t event, const DevText* text) { RaiseUp(port, event, DevTextBlob(text)); }

static void RaiseBytes(DevPort* port, const unsigned char* bytes, uint32_t size) {
  SkBlob* blob = SkBlobCreate(size);
  if (blob != NULL) memcpy(SkBlobData(blob), bytes, size);
  RaiseUp(port, SK_EVENT_DEVICE_DATA, blob);
}

/* Waits, with the lock held, until the port is told to stop or to suspend, or `ms` passed. */
static void PauseLocked(DevPort* port, uint32_t ms) {
  const uint64_t until = DevNowMs() + ms;
  for (;;) {
    const uint64_t now = DevNowMs();
    if (port->closing || port->suspended || now >= until) return;
    DevConditionWait(&port->changed, (uint32_t)(until - now));
  }
}

/* Reads until the device goes away or the waker is set; returns how it ended. */
static DevIo ReadUntilGone(DevPort* port, DevDevice* device, DevText* reason) {
  for (;;) {
    uint32_t got = 0, lines = 0;
    const DevIo io = g_driver->Read(device, port->buffer, READ_CHUNK, &got, &lines, reason);
    if (io == DEV_IO_DONE) {
      if (got != 0) RaiseBytes(port, port->buffer, got);
    } else if (io == DEV_IO_LINES) {
      DevLock();
      port->lines = lines;
      DevUnlock();
      RaiseUp(port, SK_EVENT_DEVICE_LINES, SkDwordCreate(lines));
    } else if (io != DEV_IO_IDLE) {
      return io;
    }
  }
}

/* Takes the device out of use and closes it once the write in flight on it has returned. Returns
 * whether the offline event is to go up, with its reason. */
static int TearDown(DevPort* port, DevDevice* device, DevIo ended, DevText* reason) {
  int tell;
  DevLock();
  port->device = NULL;
  port->lines = 0;
  DevUnlock();
  DevWakerSet(&port->waker); /* a write in flight returns */
  DevLock();
  while (port->writing) DevConditionWait(&port->changed, DEV_FOREVER);
  DevUnlock();
  g_driver->Disconnect(device);

  DevLock();
  port->holding = 0;
  if (port->write_lost) {
    *reason = port->write_loss; /* the write saw it first, and the read only stopped for it */
  } else if (ended == DEV_IO_CANCELLED && port->suspended) {
    DevTextClear(reason);
    DevTextAppend(reason, &port->name);
    DevTextAscii(reason, ": closed while the system is suspended");
  } else if (ended == DEV_IO_CANCELLED) {
    DevTextClear(reason);
    DevTextAppend(reason, &port->name);
    DevTextAscii(reason, ": closed");
  }
  tell = !port->closing;
  if (tell) port->offline_told = 1;
  DevConditionBroadcast(&port->changed);
  DevUnlock();
  return tell;
}

/* The port's thread: connect, read, tear down, wait, again, until Close. */
static void PortMain(void* argument) {
  DevPort* port = (DevPort*)argument;
  DevText reason;
  for (;;) {
    DevDevice* device = NULL;
    uint32_t lines = 0;
    int connected, tell;
    DevIo ended;

    DevLock();
    while (!port->closing && port->suspended) DevConditionWait(&port->changed, DEV_FOREVER);
    if (port->closing) {
      DevUnlock();
      break;
    }
    DevWakerReset(&port->waker); /* under the lock: a Close or suspend sets it after its flag */
    port->holding = 1;
    DevUnlock();

    DevTextClear(&reason);
    connected = g_driver->Connect(port->settings, &port->waker, &device, &lines, &reason);

    DevLock();
    if (connected && (port->closing || port->suspended)) {
      DevUnlock();
      g_driver->Disconnect(device);
      DevLock();
      connected = 0;
      tell = 0;
    } else {
      tell = !connected && !port->closing && !port->suspended && !port->offline_told;
    }
    if (!connected) {
      port->holding = 0;
      if (tell) port->offline_told = 1;
      DevConditionBroadcast(&port->changed);
      DevUnlock();
      if (tell) RaiseText(port, SK_EVENT_DEVICE_OFFLINE, &reason);
      DevLock();
      PauseLocked(port, port->common.reconnect_ms);
      DevUnlock();
      continue;
    }
    port->device = device;
    port->lines = lines;
    port->offline_told = 0;
    port->write_lost = 0;
    DevUnlock();
    RaiseText(port, SK_EVENT_DEVICE_ONLINE, &port->name);

    ended = ReadUntilGone(port, device, &reason);
    tell = TearDown(port, device, ended, &reason);
    if (tell) RaiseText(port, SK_EVENT_DEVICE_OFFLINE, &reason);
    /* A device that just went away is rarely back at once: give it the interval. */
    DevLock();
    PauseLocked(port, port->common.reconnect_ms);
    DevUnlock();
  }
}

static void FreePort(DevPort* port) {
  if (port->settings != NULL) g_driver->FreeSettings(port->settings);
  SkHeapFree(port);
}

static uint32_t SKEIN_CALL DevOpen(uint32_t number, SkString* path, const SkLayerTable* layers) {
  DevPort* port = (DevPort*)SkHeapAlloc(sizeof(DevPort));
  uint32_t result;
  if (port == NULL) {
    SkStringFree(path);
    return SKR_OUT_OF_MEMORY;
  }
  port->number = number;
  if (layers != NULL) port->layers = *layers;
  if (path != NULL) DevTextUnits(&port->path, path->text, path->length);
  SkStringFree(path);

  result = g_driver->ReadSettings(&port->path, &port->settings, &port->name, &port->common);
  if (result != SKR_SUCCESS) {
    FreePort(port);
    return result;
  }
  if (!DevWakerInit(&port->waker)) {
    FreePort(port);
    return SKR_SYSTEM_ERROR;
  }
  if (!DevConditionInit(&port->changed)) {
    DevWakerDestroy(&port->waker);
    FreePort(port);
    return SKR_SYSTEM_ERROR;
  }
  DevLock();
  if (FindPort(number) != NULL) {
    result = SKR_INVALID_PARAMETER; /* the service never opens one number twice */
  } else if (!DevThreadStart(&port->thread, PortMain, port)) {
    result = SKR_SYSTEM_ERROR;
  } else {
    port->next = g_ports;
    g_ports = port;
  }
  DevUnlock();
  if (result != SKR_SUCCESS) {
    DevConditionDestroy(&port->changed);
    DevWakerDestroy(&port->waker);
    FreePort(port);
  }
  return result;
}

/* Stops the port's thread, waits for it and frees the port (already out of the list). */
static void StopPort(DevPort* port) {
  DevLock();
  port->closing = 1;
  DevConditionBroadcast(&port->changed);
  DevUnlock();
  DevWakerSet(&port->waker);
  DevThreadJoin(&port->thread);
  DevConditionDestroy(&port->changed);
  DevWakerDestroy(&port->waker);
  FreePort(port);
}

static uint32_t SKEIN_CALL DevClose(uint32_t number) {
  DevPort** link;
  DevPort* gone = NULL;
  DevLock();
  for (link = &g_ports; *link != NULL; link = &(*link)->next) {
    if ((*link)->number == number) {
      gone = *link;
      *link = gone->next;
      break;
    }
  }
  DevUnlock();
  if (gone == NULL) return SKR_INVALID_HANDLE;
  StopPort(gone);
  return SKR_SUCCESS;
}

static uint32_t SKEIN_CALL DevWrite(uint32_t number, SkBlob* data, uint32_t* written) {
  const uint64_t start = DevNowMs();
  const uint32_t size = data != NULL ? (uint32_t)data->size : 0;
  uint32_t result = SKR_SUCCESS;
  DevPort* port;
  DevDevice* device = NULL;
  uint32_t timeout = 0;
  DevText reason;
  DevIo io;
  *written = 0;

  DevLock();
  port = FindPort(number);
  if (port == NULL) {
    result = SKR_INVALID_HANDLE;
  } else {
    /* Writes go out one at a time; waiting for the one ahead counts against this one's time-out. */
    for (;;) {
      const uint64_t spent = DevNowMs() - start;
      if (port->suspended) {
        result = SKR_SUSPENDED;
      } else if (port->device == NULL) {
        result = SKR_DEVICE_OFFLINE;
      } else if (spent >= port->common.write_timeout_ms) {
        result = SKR_DEVICE_TIMEOUT;
      } else if (port->writing) {
        DevConditionWait(&port->changed, port->common.write_timeout_ms - (uint32_t)spent);
        continue;
      } else {
        timeout = port->common.write_timeout_ms - (uint32_t)spent;
      }
      break;
    }
    if (result == SKR_SUCCESS && size != 0) {
      port->writing = 1;
      device = port->device;
    }
  }
  DevUnlock();
  if (device == NULL) {
    SkBlobRelease(data);
    return result;
  }

  DevTextClear(&reason);
  io = g_driver->Write(device, SkBlobData(data), size, timeout, written, &reason);
  SkBlobRelease(data);
  /* The reader may not have noticed yet: wake it, so that the port goes offline now. */
  if (io == DEV_IO_LOST) DevWakerSet(&port->waker);

  DevLock();
  if (io == DEV_IO_LOST && !port->write_lost) {
    port->write_lost = 1;
    port->write_loss = reason;
    port->device = NULL; /* no further write tries the lost device */
  }
  if (io == DEV_IO_DONE) result = SKR_SUCCESS;
  else if (io == DEV_IO_TIMEOUT) result = SKR_DEVICE_TIMEOUT;
  else if (io == DEV_IO_CANCELLED && port->suspended) result = SKR_SUSPENDED;
  else result = SKR_DEVICE_OFFLINE;
  port->writing = 0;
  DevConditionBroadcast(&port->changed);
  DevUnlock();
  return result;
}

/* SK_POWER_STATE: 1 suspends (the device is closed before this returns, within a bound), 2
 * resumes (the thread connects at once). */
static uint32_t PowerState(DevPort* port, uint32_t state) {
  if (state != 1 && state != 2) return SKR_INVALID_PARAMETER;
  DevLock();
  port->suspended = state == 1;
  DevConditionBroadcast(&port->changed);
  DevUnlock();
  if (state == 1) {
    const uint64_t until = DevNowMs() + SUSPEND_CLOSE_WAIT_MS;
    DevWakerSet(&port->waker);
    DevLock();
    for (;;) {
      const uint64_t now = DevNowMs();
      if (!port->holding || now >= until) break;
      DevConditionWait(&port->changed, (uint32_t)(until - now));
    }
    DevUnlock();
  }
  return SKR_SUCCESS;
}

static uint32_t Answer(SkBlob** output, SkBlob* blob) {
  if (blob == NULL) return SKR_OUT_OF_MEMORY;
  *output = blob;
  return SKR_SUCCESS;
}

static uint32_t SettingsDocument(SkBlob** output) {
  const char* text = g_driver->settings_document;
  const size_t length = strlen(text);
  SkBlob* blob = SkBlobCreate(((uint64_t)length + 1) * 2);
  size_t i;
  if (blob == NULL) return SKR_OUT_OF_MEMORY;
  for (i = 0; i < length; ++i) SkBlobData(blob)[2 * i] = (unsigned char)text[i]; /* ASCII to UTF-16LE */
  return Answer(output, blob);
}

static uint32_t SKEIN_CALL DevIoctl(uint32_t number, uint32_t code, SkBlob* input, SkBlob** output) {
  uint32_t value = 0, state = 0;
  const int has_value = SkDwordRead(input, &value);
  DevPort* port;
  SkBlobRelease(input);

  /* The configuration port asks on its own number: the document does not depend on the port. */
  if (code == SK_COMPONENT_GET_SETTINGS) return SettingsDocument(output);

  DevLock();
  port = FindPort(number);
  if (port != NULL) {
    state = (port->device != NULL ? SK_DEVICE_STATE_ONLINE : 0) | (port->suspended ? SK_DEVICE_STATE_SUSPENDED : 0) |
            port->lines;
  }
  DevUnlock();
  /* The port stays in the list while the service calls it: only Close takes it out. */
  if (port == NULL) return SKR_INVALID_HANDLE;

  if (code == SK_PORT_LOCK || code == SK_PORT_EXCLUSIVE) return SKR_SUCCESS; /* whatever the device's state */
  if (code == SK_DEVICE_STATE) return Answer(output, SkDwordCreate(state));
  if (code == SK_POWER_STATE) return has_value ? PowerState(port, value) : SKR_INVALID_SIZE;
  return SKR_INVALID_PARAMETER;
}

/* Events from a layer below (a device module is normally the bottom) pass up unchanged. */
static void SKEIN_CALL DevEvent(uint32_t number, uint32_t event, SkBlob* data) {
  SkEventFn target = NULL;
  DevPort* port;
  DevLock();
  port = FindPort(number);
  if (port != NULL) target = port->layers.Event;
  DevUnlock();
  if (target != NULL) {
    target(number, event, data);
  } else {
    SkBlobRelease(data);
  }
}

int32_t DevInitialize(const DevDriver* driver, const SkHostTable* host, SkComponentTable* ops) {
  g_driver = driver;
  g_device_host = host;
  ops->Open = DevOpen;
  ops->Close = DevClose;
  ops->Write = DevWrite;
  ops->Ioctl = DevIoctl;
  ops->Event = DevEvent;
  return 1;
}

void DevUnload(void) {
  /* Ports the service left open are closed here, so that no thread outlives the module. */
  DevPort* port;
  DevLock();
  port = g_ports;
  g_ports = NULL;
  DevUnlock();
  while (port != NULL) {
    DevPort* next = port->next;
    StopPort(port);
    port = next;
  }
  g_device_host = NULL;
}
