/* Orlenda device modules: what a client needs to know of the ports that reach real devices.
 *
 * Two component modules serve such ports: "serial" (COM ports and ttys, including the virtual COM
 * ports of USB- and Bluetooth-serial adapters, and printer device files such as /dev/usb/lp0) and
 * "netprinter" (printers that take raw bytes on a TCP port, 9100 by convention). Both behave alike
 * towards the client; this header lists their shared events, controls and result codes. The
 * settings each module reads are described in its own source (modules/serial/serial.c,
 * modules/netprinter/netprinter.c) and in the settings document it returns for
 * SK_COMPONENT_GET_SETTINGS.
 *
 * A port of a device module opens whether or not its device is there: Open never waits for the
 * device. The module connects in the background, raises SK_EVENT_DEVICE_ONLINE when the device is
 * reachable and SK_EVENT_DEVICE_OFFLINE when it is not (at the first failed attempt, and once each
 * time an online device goes away), and keeps trying again at the port's reconnect interval. The
 * client keeps its port open through all of this; writes work again as soon as the device is back.
 * Events raised while a port is being opened can arrive before the client's connection is a member
 * of it, so after Open a client asks SK_DEVICE_STATE for where the device stands, and follows the
 * events from there.
 *
 * Locking: the modules accept SK_PORT_LOCK whatever the state of their device (an absent device
 * never refuses a lock), so a client can take the lock while the printer is off and write once it
 * is back. (A refusal whose code has bits 16-27 equal to 0x006 would make the service treat the
 * device as busy and keep the lock request queued; these modules never answer so.)
 *
 * Identifiers follow the service's event bits: bit 28 (events for the port itself) is never set
 * here; bit 29 ("only connections holding the port's lock receive it") is set where noted. The
 * family of all codes here is 0x008 (bits 16-27).
 *
 * Plain C; compiles as C and as C++. */
#ifndef SKEIN_DEVICES_H
#define SKEIN_DEVICES_H

#include <stdint.h>

#include "skein/protocol.h"

/* ---- Events ----
 *
 * SK_EVENT_DEVICE_DATA     bytes the device sent (a status byte, a scanner's code, a display's
 *                          answer), in the order received; one event may carry any number of them.
 *                          Bit 29 is set: what a device answers belongs to the conversation of the
 *                          client that holds the lock (only the holder can write, so only the holder
 *                          asked); other members do not see another client's receipts.
 * SK_EVENT_DEVICE_ONLINE   the device is reachable (again); the data is its name as UTF-16 text
 *                          with a terminating NUL ("COM3", "/dev/ttyUSB0", "192.168.1.40:9100").
 * SK_EVENT_DEVICE_OFFLINE  the device went away or could not be reached; the data is the reason as
 *                          UTF-16 text with a terminating NUL, naming the device and the system's
 *                          error ("COM3: cannot open: The system cannot find the file specified.
 *                          (error 2)"). Raised once per loss, not once per failed retry.
 * SK_EVENT_DEVICE_LINES    serial ports: the modem input lines changed; the data is a DWORD of
 *                          SK_DEVICE_LINE_* bits (the lines that are now on). Ports whose device
 *                          cannot report its lines (printer device files, pseudo-terminals) never
 *                          raise it.
 * Online, offline and line changes describe the device, not a conversation with it: every member
 * that registered them receives them (bit 29 clear), so a client waiting for the lock can still
 * show "printer offline".
 */
#define SKEIN_DEVICE_EVENTS(X)                 \
  X(SK_EVENT_DEVICE_DATA, 0x20080001u)         \
  X(SK_EVENT_DEVICE_ONLINE, 0x00080002u)       \
  X(SK_EVENT_DEVICE_OFFLINE, 0x00080003u)      \
  X(SK_EVENT_DEVICE_LINES, 0x00080004u)

/* Modem input lines, in SK_EVENT_DEVICE_LINES and SK_DEVICE_STATE. */
#define SK_DEVICE_LINE_CTS 0x10u  /* clear to send */
#define SK_DEVICE_LINE_DSR 0x20u  /* data set ready */
#define SK_DEVICE_LINE_RING 0x40u /* ring indicator */
#define SK_DEVICE_LINE_DCD 0x80u  /* data carrier detect (receive line signal) */

/* ---- Controls ----
 *
 * SK_DEVICE_STATE          no input; output a DWORD: bit 0 (SK_DEVICE_STATE_ONLINE) set while the
 *                          device is online, bit 1 (SK_DEVICE_STATE_SUSPENDED) while the system is
 *                          suspended, and the SK_DEVICE_LINE_* bits of a serial port that reports
 *                          its lines. Any member may ask; the lock is not needed.
 *
 * The modules also answer the service's own controls: SK_PORT_LOCK and SK_PORT_EXCLUSIVE always
 * succeed; SK_POWER_STATE 1 (suspend) closes the device, 2 (resume) opens it again;
 * SK_COMPONENT_GET_SETTINGS returns the module's settings document. Other codes answer
 * SKR_INVALID_PARAMETER.
 */
#define SKEIN_DEVICE_CONTROLS(X) X(SK_DEVICE_STATE, 0x40080001u)

#define SK_DEVICE_STATE_ONLINE 0x1u
#define SK_DEVICE_STATE_SUSPENDED 0x2u

/* ---- Write results ----
 *
 * A Write sends every byte or stops, and its written count says exactly how many bytes reached the
 * device (were accepted by the system's driver or TCP stack); the module never sends a byte twice
 * and never retries a write by itself: what to do with the rest is the client's decision.
 *
 * SKR_SUCCESS              every byte went out.
 * SKR_DEVICE_OFFLINE       the device is offline (nothing was sent), or it went away during the
 *                          write (the count says how much went out before).
 * SKR_DEVICE_TIMEOUT       the device took no more bytes within the port's write time-out (flow
 *                          control held, printer out of paper, receiver not reading); the count
 *                          says how much went out. The device is still online.
 * SKR_SUSPENDED            the system suspended during the write (the service's own code).
 */
#define SKEIN_DEVICE_RESULT_CODES(X)            \
  X(SKR_DEVICE_OFFLINE, 0x80080001u)            \
  X(SKR_DEVICE_TIMEOUT, 0x80080002u)

SKEIN_DEVICE_EVENTS(SKEIN_DEFINE_CODE)
SKEIN_DEVICE_CONTROLS(SKEIN_DEFINE_CODE)
SKEIN_DEVICE_RESULT_CODES(SKEIN_DEFINE_CODE)

#endif /* SKEIN_DEVICES_H */
