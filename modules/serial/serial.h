/* The serial module's settings and the device calls its platform part supplies (serial_posix.c,
 * serial_win32.c); serial.c reads the settings and hands the calls to the shared core.
 *
 * Plain C. */
#ifndef ORLENDA_SERIAL_H
#define ORLENDA_SERIAL_H

#include "device/device_port.h"

typedef enum SerialParity { SERIAL_PARITY_NONE, SERIAL_PARITY_ODD, SERIAL_PARITY_EVEN, SERIAL_PARITY_MARK, SERIAL_PARITY_SPACE } SerialParity;
typedef enum SerialStopBits { SERIAL_STOP_1, SERIAL_STOP_1_5, SERIAL_STOP_2 } SerialStopBits;
typedef enum SerialFlow { SERIAL_FLOW_NONE, SERIAL_FLOW_RTS_CTS, SERIAL_FLOW_XON_XOFF, SERIAL_FLOW_DTR_DSR } SerialFlow;

typedef struct SerialSettings {
  DevText device; /* as configured: "COM3", "/dev/ttyUSB0", "/dev/usb/lp0" */
  uint32_t baud_rate;
  uint32_t data_bits; /* 5 to 8 */
  SerialParity parity;
  SerialStopBits stop_bits;
  SerialFlow flow;
  uint32_t write_timeout_ms; /* also bounds the wait for output to drain at disconnect */
} SerialSettings;

/* The device named when SERIAL_DEVICE is not set. */
extern const char kSerialDefaultDevice[];

/* SKR_SUCCESS when this system can apply the settings, else SKR_INVALID_PARAMETER (a baud rate or
 * a flow control it lacks). */
uint32_t SerialCheckSettings(const SerialSettings* settings);

/* The device calls of device_port.h's DevDriver; `settings` is a SerialSettings. */
int SerialConnect(const void* settings, DevWaker* waker, DevDevice** device, uint32_t* lines, DevText* reason);
DevIo SerialRead(DevDevice* device, unsigned char* buffer, uint32_t capacity, uint32_t* got, uint32_t* lines,
                 DevText* reason);
DevIo SerialWrite(DevDevice* device, const unsigned char* data, uint32_t size, uint32_t timeout_ms, uint32_t* written,
                  DevText* reason);
void SerialDisconnect(DevDevice* device);

#endif /* ORLENDA_SERIAL_H */
