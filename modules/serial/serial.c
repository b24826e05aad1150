/* serial: a component module whose ports are serial devices: COM ports on Windows (also the virtual
 * ones of USB- and Bluetooth-serial adapters), ttys on POSIX, and printer device files (a device
 * that is not a serial port, such as /dev/usb/lp0, is opened without line settings).
 *
 * It sits at the bottom of a stack. Events, controls and write results are those of
 * skein/devices.h; reconnection and power handling are the shared core's (device/device_port.h).
 *
 * Settings, read at Open from the properties store at "<port path>/<name>":
 *
 *   SERIAL_DEVICE              string   the device: "COM3" (or "\\.\COM3") on Windows, a path such
 *                                       as "/dev/ttyUSB0" on POSIX. Default COM1, /dev/ttyS0.
 *   SERIAL_BAUD_RATE           number   bits per second, default 9600. POSIX takes the standard
 *                                       rates from 50 to 4000000; another rate fails the Open.
 *   SERIAL_DATA_BITS           number   5 to 8, default 8; other values fail the Open.
 *   SERIAL_PARITY              string   None (default), Odd, Even, Mark, Space.
 *   SERIAL_STOP_BITS           string   1 (default), 1.5, 2. POSIX has no 1.5 and uses 2.
 *   SERIAL_FLOW_CONTROL        string   None (default), RtsCts, XonXoff, DtrDsr (DtrDsr: Windows
 *                                       only; on POSIX it fails the Open).
 *   SERIAL_WRITE_TIMEOUT       number   ms one Write may take at most, default 10000, minimum 1.
 *   SERIAL_RECONNECT_INTERVAL  number   ms between attempts to reach an absent device, default
 *                                       2000, minimum 100.
 * Numbers may also be stored as decimal strings; names of choices are compared ignoring case. An
 * unknown choice fails the Open with SKR_INVALID_PARAMETER. */
#include "serial.h"

static uint32_t ReadChoice(const DevText* path, const char* setting, const char* const* names, uint32_t count,
                           uint32_t* chosen) {
  DevText value;
  uint32_t i;
  if (!DevGetString(path, setting, &value) || value.length == 0) return SKR_SUCCESS; /* keeps the default */
  for (i = 0; i < count; ++i) {
    if (DevTextIsAscii(&value, names[i])) {
      *chosen = i;
      return SKR_SUCCESS;
    }
  }
  return SKR_INVALID_PARAMETER;
}

static uint32_t ReadSerialSettings(const DevText* path, void** out, DevText* name, DevCommonSettings* common) {
  static const char* const kParities[] = {"None", "Odd", "Even", "Mark", "Space"};
  static const char* const kStopBits[] = {"1", "1.5", "2"};
  static const char* const kFlows[] = {"None", "RtsCts", "XonXoff", "DtrDsr"};
  SerialSettings* settings = (SerialSettings*)SkHeapAlloc(sizeof(SerialSettings));
  uint32_t parity = SERIAL_PARITY_NONE, stop_bits = SERIAL_STOP_1, flow = SERIAL_FLOW_NONE;
  uint32_t result = SKR_SUCCESS;
  if (settings == NULL) return SKR_OUT_OF_MEMORY;

  if (!DevGetString(path, "SERIAL_DEVICE", &settings->device) || settings->device.length == 0) {
    DevTextClear(&settings->device);
    DevTextAscii(&settings->device, kSerialDefaultDevice);
  }
  settings->baud_rate = DevGetNumber(path, "SERIAL_BAUD_RATE", 9600, 1);
  settings->data_bits = DevGetNumber(path, "SERIAL_DATA_BITS", 8, 0);
  if (settings->data_bits < 5 || settings->data_bits > 8) result = SKR_INVALID_PARAMETER;
  if (result == SKR_SUCCESS) result = ReadChoice(path, "SERIAL_PARITY", kParities, 5, &parity);
  if (result == SKR_SUCCESS) result = ReadChoice(path, "SERIAL_STOP_BITS", kStopBits, 3, &stop_bits);
  if (result == SKR_SUCCESS) result = ReadChoice(path, "SERIAL_FLOW_CONTROL", kFlows, 4, &flow);
  settings->parity = (SerialParity)parity;
  settings->stop_bits = (SerialStopBits)stop_bits;
  settings->flow = (SerialFlow)flow;
  settings->write_timeout_ms = common->write_timeout_ms = DevGetNumber(path, "SERIAL_WRITE_TIMEOUT", 10000, 1);
  common->reconnect_ms = DevGetNumber(path, "SERIAL_RECONNECT_INTERVAL", 2000, 100);
  if (result == SKR_SUCCESS) result = SerialCheckSettings(settings);
  if (result != SKR_SUCCESS) {
    SkHeapFree(settings);
    return result;
  }
  *name = settings->device;
  *out = settings;
  return SKR_SUCCESS;
}

static void FreeSerialSettings(void* settings) { SkHeapFree(settings); }

#ifdef _WIN32
#define DEFAULT_DEVICE "COM1"
#define DEVICE_OPTIONS                                                                                       \
  DEV_OPTION("COM1", "COM1") DEV_OPTION("COM2", "COM2") DEV_OPTION("COM3", "COM3") DEV_OPTION("COM4", "COM4")                \
  DEV_OPTION("COM5", "COM5") DEV_OPTION("COM6", "COM6") DEV_OPTION("COM7", "COM7") DEV_OPTION("COM8", "COM8")
#else
#define DEFAULT_DEVICE "/dev/ttyS0"
#define DEVICE_OPTIONS                                                                                       \
  DEV_OPTION("/dev/ttyS0", "/dev/ttyS0") DEV_OPTION("/dev/ttyS1", "/dev/ttyS1") DEV_OPTION("/dev/ttyUSB0", "/dev/ttyUSB0") \
  DEV_OPTION("/dev/ttyUSB1", "/dev/ttyUSB1") DEV_OPTION("/dev/ttyACM0", "/dev/ttyACM0") DEV_OPTION("/dev/rfcomm0", "/dev/rfcomm0") \
  DEV_OPTION("/dev/usb/lp0", "/dev/usb/lp0")
#endif

/* The settings document: the format of the service's settings schema, in both languages. */
static const char kSerialDocument[] =
    "<?xml version=\"1.0\"?>\r\n<xmlroot>"
    "<choice id=\"SERIAL_DEVICE\" default=\"" DEFAULT_DEVICE "\">" DEV_UI("Serial device", "The serial port or device file the port uses.")
    DEVICE_OPTIONS "</choice>"
    "<range id=\"SERIAL_BAUD_RATE\" default=\"9600\" min=\"50\">" DEV_UI("Baud rate", "Line speed in bits per second.") "</range>"
    "<range id=\"SERIAL_DATA_BITS\" default=\"8\" min=\"5\">" DEV_UI("Data bits", "Bits per character, 5 to 8.") "</range>"
    "<choice id=\"SERIAL_PARITY\" default=\"None\">" DEV_UI("Parity", "Parity bit of each character.")
    DEV_OPTION("None", "None") DEV_OPTION("Odd", "Odd") DEV_OPTION("Even", "Even") DEV_OPTION("Mark", "Mark") DEV_OPTION("Space", "Space")
    "</choice>"
    "<choice id=\"SERIAL_STOP_BITS\" default=\"1\">" DEV_UI("Stop bits", "Stop bits of each character.")
    DEV_OPTION("1", "1") DEV_OPTION("1.5", "1.5") DEV_OPTION("2", "2") "</choice>"
    "<choice id=\"SERIAL_FLOW_CONTROL\" default=\"None\">" DEV_UI("Flow control", "How the device holds back data it cannot take.")
    DEV_OPTION("None", "None") DEV_OPTION("RtsCts", "RTS/CTS") DEV_OPTION("XonXoff", "XON/XOFF") DEV_OPTION("DtrDsr", "DTR/DSR")
    "</choice>"
    "<range id=\"SERIAL_WRITE_TIMEOUT\" default=\"10000\" min=\"1\">"
    DEV_UI("Write timeout", "Longest time in milliseconds one write may take before it stops.") "</range>"
    "<range id=\"SERIAL_RECONNECT_INTERVAL\" default=\"2000\" min=\"100\">"
    DEV_UI("Reconnect interval", "Milliseconds between attempts to reach an absent device.") "</range>"
    "</xmlroot>\r\n";

const char kSerialDefaultDevice[] = DEFAULT_DEVICE;

static const DevDriver kSerialDriver = {ReadSerialSettings, FreeSerialSettings, SerialConnect, SerialRead,
                                        SerialWrite,        SerialDisconnect,   kSerialDocument};

SKEIN_EXPORT int32_t SKEIN_CALL InitializeSkeinComponent(const SkHostTable* host, SkComponentTable* ops) {
  return DevInitialize(&kSerialDriver, host, ops);
}

SKEIN_EXPORT int32_t SKEIN_CALL UnloadSkeinComponent(void) {
  DevUnload();
  return 1;
}
