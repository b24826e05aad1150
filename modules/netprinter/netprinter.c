/* netprinter: a component module whose ports are printers that take raw bytes on a TCP port (9100
 * by convention): what a client writes goes to the printer as it is, what the printer sends back
 * (status bytes) comes up as SK_EVENT_DEVICE_DATA.
 *
 * It sits at the bottom of a stack. Events, controls and write results are those of
 * skein/devices.h; reconnection and power handling are the shared core's (device/device_port.h).
 * The connection is made in the background, never inside Open; a written byte counts as sent once
 * the system's TCP stack took it.
 *
 * Settings, read at Open from the properties store at "<port path>/<name>":
 *
 *   NETPRINTER_HOST                string  the printer's host name or address; required (a port
 *                                          without it fails the Open with SKR_INVALID_PARAMETER).
 *   NETPRINTER_PORT                number  TCP port, 1 to 65535, default 9100.
 *   NETPRINTER_CONNECT_TIMEOUT     number  ms one connection attempt may take, default 3000,
 *                                          minimum 100.
 *   NETPRINTER_WRITE_TIMEOUT       number  ms one Write may take at most, default 10000, minimum 1.
 *   NETPRINTER_RECONNECT_INTERVAL  number  ms between attempts to reach an absent printer, default
 *                                          2000, minimum 100.
 *   NETPRINTER_KEEPALIVE           number  ms without traffic before TCP keep-alive probes start
 *                                          (one a second, three unanswered end the connection),
 *                                          default 5000, minimum 1000.
 * Numbers may also be stored as decimal strings. */
#include "net_socket.h"

#include "device/device_port.h"

typedef struct NetSettings {
  char host[DEV_TEXT_UNITS * 3 + 1]; /* UTF-8 */
  uint16_t port;
  uint32_t connect_timeout_ms;
  uint32_t keepalive_ms;
  DevText name; /* "host:port" */
} NetSettings;

struct DevDevice {
  NetSocket socket;
  DevWaker* waker;
  DevText name;
};

static uint32_t ReadNetSettings(const DevText* path, void** out, DevText* name, DevCommonSettings* common) {
  NetSettings* settings = (NetSettings*)SkHeapAlloc(sizeof(NetSettings));
  DevText host;
  uint32_t port;
  if (settings == NULL) return SKR_OUT_OF_MEMORY;
  port = DevGetNumber(path, "NETPRINTER_PORT", 9100, 1);
  if (!DevGetString(path, "NETPRINTER_HOST", &host) || host.length == 0 ||
      !DevTextToUtf8(&host, settings->host, sizeof settings->host) || port > 65535) {
    SkHeapFree(settings);
    return SKR_INVALID_PARAMETER;
  }
  settings->port = (uint16_t)port;
  settings->connect_timeout_ms = DevGetNumber(path, "NETPRINTER_CONNECT_TIMEOUT", 3000, 100);
  settings->keepalive_ms = DevGetNumber(path, "NETPRINTER_KEEPALIVE", 5000, 1000);
  common->write_timeout_ms = DevGetNumber(path, "NETPRINTER_WRITE_TIMEOUT", 10000, 1);
  common->reconnect_ms = DevGetNumber(path, "NETPRINTER_RECONNECT_INTERVAL", 2000, 100);
  settings->name = host;
  DevTextAscii(&settings->name, ":");
  DevTextNumber(&settings->name, port);
  *name = settings->name;
  *out = settings;
  return SKR_SUCCESS;
}

static void FreeNetSettings(void* settings) { SkHeapFree(settings); }

static int NetPrinterConnect(const void* raw, DevWaker* waker, DevDevice** out, uint32_t* lines, DevText* reason) {
  const NetSettings* settings = (const NetSettings*)raw;
  DevDevice* device;
  const NetSocket socket =
      NetConnect(settings->host, settings->port, settings->connect_timeout_ms, waker, &settings->name, reason);
  if (socket == NET_NO_SOCKET) return 0;
  device = (DevDevice*)SkHeapAlloc(sizeof(DevDevice));
  if (device == NULL) {
    NetClose(socket);
    DevTextClear(reason);
    DevTextAppend(reason, &settings->name);
    DevTextAscii(reason, ": out of memory");
    return 0;
  }
  NetKeepAlive(socket, settings->keepalive_ms);
  device->socket = socket;
  device->waker = waker;
  device->name = settings->name;
  *lines = 0;
  *out = device;
  return 1;
}

static DevIo NetPrinterRead(DevDevice* device, unsigned char* buffer, uint32_t capacity, uint32_t* got,
                            uint32_t* lines, DevText* reason) {
  long n;
  (void)lines;
  switch (NetWait(device->socket, 0, DEV_FOREVER, device->waker)) {
    case NET_WOKEN:
      return DEV_IO_CANCELLED;
    case NET_FAILED:
      DevTextReason(reason, &device->name, "cannot wait for input", NetLastError());
      return DEV_IO_LOST;
    case NET_IDLE:
      return DEV_IO_IDLE;
    case NET_READY:
      break;
  }
  n = NetReceive(device->socket, buffer, capacity);
  if (n > 0) {
    *got = (uint32_t)n;
    return DEV_IO_DONE;
  }
  if (n == 0) return DEV_IO_IDLE;
  DevTextClear(reason);
  if (n == -2) {
    DevTextAppend(reason, &device->name);
    DevTextAscii(reason, ": the printer closed the connection");
  } else {
    DevTextReason(reason, &device->name, "connection lost", NetLastError());
  }
  return DEV_IO_LOST;
}

static DevIo NetPrinterWrite(DevDevice* device, const unsigned char* data, uint32_t size, uint32_t timeout_ms,
                             uint32_t* written, DevText* reason) {
  const uint64_t until = DevNowMs() + timeout_ms;
  *written = 0;
  while (*written < size) {
    const long n = NetSend(device->socket, data + *written, size - *written);
    uint64_t now;
    if (n > 0) {
      *written += (uint32_t)n;
      continue;
    }
    if (n < 0) {
      DevTextReason(reason, &device->name, "connection lost", NetLastError());
      return DEV_IO_LOST;
    }
    now = DevNowMs();
    if (now >= until) return DEV_IO_TIMEOUT;
    switch (NetWait(device->socket, 1, (uint32_t)(until - now), device->waker)) {
      case NET_WOKEN:
        return DEV_IO_CANCELLED;
      case NET_FAILED:
        DevTextReason(reason, &device->name, "cannot wait for output", NetLastError());
        return DEV_IO_LOST;
      default:
        break; /* ready or out of time: the next send tells */
    }
  }
  return DEV_IO_DONE;
}

static void NetPrinterDisconnect(DevDevice* device) {
  NetClose(device->socket);
  SkHeapFree(device);
}

/* The settings document: the format of the service's settings schema, in both languages. The host
 * name is free text, which the format has no element for: it is set as NETPRINTER_HOST directly. */
static const char kNetPrinterDocument[] =
    "<?xml version=\"1.0\"?>\r\n<xmlroot>"
    "<range id=\"NETPRINTER_PORT\" default=\"9100\" min=\"1\">"
    DEV_UI("Printer TCP port", "TCP port on which the printer takes raw print data.") "</range>"
    "<range id=\"NETPRINTER_CONNECT_TIMEOUT\" default=\"3000\" min=\"100\">"
    DEV_UI("Connect timeout", "Milliseconds one attempt to connect to the printer may take.") "</range>"
    "<range id=\"NETPRINTER_WRITE_TIMEOUT\" default=\"10000\" min=\"1\">"
    DEV_UI("Write timeout", "Longest time in milliseconds one write may take before it stops.") "</range>"
    "<range id=\"NETPRINTER_RECONNECT_INTERVAL\" default=\"2000\" min=\"100\">"
    DEV_UI("Reconnect interval", "Milliseconds between attempts to reach an absent printer.") "</range>"
    "<range id=\"NETPRINTER_KEEPALIVE\" default=\"5000\" min=\"1000\">"
    DEV_UI("Keep-alive time", "Milliseconds without traffic before the connection is probed.") "</range>"
    "</xmlroot>\r\n";

static const DevDriver kNetPrinterDriver = {ReadNetSettings, FreeNetSettings,      NetPrinterConnect,  NetPrinterRead,
                                            NetPrinterWrite, NetPrinterDisconnect, kNetPrinterDocument};

SKEIN_EXPORT int32_t SKEIN_CALL InitializeSkeinComponent(const SkHostTable* host, SkComponentTable* ops) {
  if (!NetStartup()) return 0;
  return DevInitialize(&kNetPrinterDriver, host, ops);
}

SKEIN_EXPORT int32_t SKEIN_CALL UnloadSkeinComponent(void) {
  DevUnload();
  NetCleanup();
  return 1;
}
