/* The shared core of the device modules (serial, netprinter): the ports, their reader threads,
 * reconnection, power transitions and the five operations of the component contract. A module
 * supplies a driver: how to read its settings, how to reach its device, and how to read and write
 * it. The events, controls and result codes clients see are those of skein/devices.h.
 *
 * One port, one thread. Open reads the settings and starts the port's thread; it never touches the
 * device. The thread connects, raises SK_EVENT_DEVICE_ONLINE, then reads until the device goes away
 * (raising SK_EVENT_DEVICE_DATA and SK_EVENT_DEVICE_LINES), closes it, raises
 * SK_EVENT_DEVICE_OFFLINE with the reason, waits the reconnect interval and connects again. A failed
 * attempt raises SK_EVENT_DEVICE_OFFLINE only when the device was not known to be offline already.
 * Writes run on the caller's thread, one at a time per port, straight to the device while it is
 * online. Close ends the thread and waits for it; a suspend closes the device and waits (a few
 * seconds at most) until it is closed; a resume lets the thread connect again at once.
 *
 * Threads and the lock: one lock for the module (device_sys.h) guards every port's state; no device
 * call and no call to another layer is made with it held. Device calls that block (connect, read,
 * write) watch the port's waker, which Close, a suspend and a failed write set to make them return.
 * A device handle is closed only by the port's thread, and only after the write in flight on it has
 * returned, so a write never meets a closed handle.
 *
 * Plain C. */
#ifndef ORLENDA_DEVICE_PORT_H
#define ORLENDA_DEVICE_PORT_H

#include <stdint.h>

#include "device_sys.h"
#include "device_text.h"
#include "skein/component.h"
#include "skein/devices.h"

/* A driver's connected device; the core only hands it back. */
typedef struct DevDevice DevDevice;

typedef enum DevIo {
  DEV_IO_DONE,      /* read: `got` bytes arrived; write: every byte went out */
  DEV_IO_IDLE,      /* read: nothing happened (a bounded wait ended); call again */
  DEV_IO_LINES,     /* read: the modem lines changed; `lines` holds them */
  DEV_IO_TIMEOUT,   /* write: the time-out passed; `written` says how much went out */
  DEV_IO_LOST,      /* the device went away; `reason` says why */
  DEV_IO_CANCELLED  /* the waker was set */
} DevIo;

/* What every port has, whatever its device. */
typedef struct DevCommonSettings {
  uint32_t write_timeout_ms;
  uint32_t reconnect_ms;
} DevCommonSettings;

typedef struct DevDriver {
  /* Reads the settings of the port at `path` (through DevGetString/DevGetNumber) into a block of
   * the driver's own, and names the device in `name` (for events and reasons). SKR_SUCCESS, or
   * the result Open fails with (a setting that cannot work: SKR_INVALID_PARAMETER). */
  uint32_t (*ReadSettings)(const DevText* path, void** settings, DevText* name, DevCommonSettings* common);
  void (*FreeSettings)(void* settings);
  /* Reaches the device; may block, but returns soon after `waker` is set. On success fills
   * `device` and the modem lines now on (0 when the device has none) and returns nonzero; on
   * failure fills `reason` and returns 0. */
  int (*Connect)(const void* settings, DevWaker* waker, DevDevice** device, uint32_t* lines, DevText* reason);
  /* Waits for input: DONE with bytes, LINES, IDLE, LOST or CANCELLED. `buffer` is the same for
   * every call on one device, so a read may stay pending from one call to the next (until
   * Disconnect). */
  DevIo (*Read)(DevDevice* device, unsigned char* buffer, uint32_t capacity, uint32_t* got, uint32_t* lines,
                DevText* reason);
  /* Writes `size` bytes within `timeout_ms`: DONE, TIMEOUT, LOST or CANCELLED, with `written`
   * exact in every case. Runs on a request thread at the same time as Read. */
  DevIo (*Write)(DevDevice* device, const unsigned char* data, uint32_t size, uint32_t timeout_ms, uint32_t* written,
                 DevText* reason);
  void (*Disconnect)(DevDevice* device);
  /* The settings document (SK_COMPONENT_GET_SETTINGS), ASCII XML. */
  const char* settings_document;
} DevDriver;

/* Pieces of a settings document, in the settings schema's format: the display texts of an
 * element in both languages (the Japanese ones are not translated), and one option of a choice. */
#define DEV_UI(label, tip)                                        \
  "<ui language=\"en\" label=\"" label "\" tooltip=\"" tip "\"/>" \
  "<ui language=\"ja\" label=\"" label "\" tooltip=\"" tip "\"/>"
#define DEV_OPTION(value, label)                                                                     \
  "<option value=\"" value "\"><ui language=\"en\" label=\"" label "\"/><ui language=\"ja\" label=\"" label \
  "\"/></option>"

/* Fills the component table with the core's operations for `driver` and keeps `host`; returns
 * InitializeSkeinComponent's answer. */
int32_t DevInitialize(const DevDriver* driver, const SkHostTable* host, SkComponentTable* ops);
/* Closes every port still open (joining their threads); UnloadSkeinComponent's work. */
void DevUnload(void);

/* Settings of a port, read through the host table at "<path>/<name>". DevGetString: nonzero when
 * the property exists (as a string, or as a number, which is given in decimal). DevGetNumber: the
 * number stored (or a string holding one), else `fallback`; raised to `minimum`. */
int DevGetString(const DevText* path, const char* name, DevText* value);
uint32_t DevGetNumber(const DevText* path, const char* name, uint32_t fallback, uint32_t minimum);

#endif /* ORLENDA_DEVICE_PORT_H */
