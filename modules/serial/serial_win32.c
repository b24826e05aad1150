/* The serial module's device calls on Windows: a COM port ("\\.\COMn") opened for overlapped I/O,
 * with its line settings through SetCommState. A device that is no COM port (GetCommState fails:
 * a printer's device file) is used without line settings. Reads stay pending between calls;
 * every wait also watches the port's waker, and a write that runs out of time is cancelled and
 * reports what the driver had taken. */
#include "serial.h"

/* How often the modem lines are looked at while a read is pending. */
#define LINE_POLL_MS 200u
/* The longest one WriteFile runs before it reports what went out. */
#define WRITE_SLICE_MS 100u

struct DevDevice {
  HANDLE handle;
  int is_comm;       /* a COM port: line settings applied */
  int has_lines;     /* GetCommModemStatus works */
  int can_read;      /* reads are possible at all */
  int read_pending;
  uint32_t lines;
  OVERLAPPED read;   /* its event is manual-reset */
  OVERLAPPED write;
  DevWaker* waker;
  DevText name;
};

uint32_t SerialCheckSettings(const SerialSettings* settings) {
  (void)settings; /* every rate and flow control goes to the driver, which judges them at connect */
  return SKR_SUCCESS;
}

static uint32_t ToLines(DWORD status) {
  return ((status & MS_CTS_ON) ? SK_DEVICE_LINE_CTS : 0) | ((status & MS_DSR_ON) ? SK_DEVICE_LINE_DSR : 0) |
         ((status & MS_RING_ON) ? SK_DEVICE_LINE_RING : 0) | ((status & MS_RLSD_ON) ? SK_DEVICE_LINE_DCD : 0);
}

static int ApplyLineSettings(HANDLE handle, const SerialSettings* s) {
  static const BYTE kParities[] = {NOPARITY, ODDPARITY, EVENPARITY, MARKPARITY, SPACEPARITY};
  static const BYTE kStopBits[] = {ONESTOPBIT, ONE5STOPBITS, TWOSTOPBITS};
  DCB dcb;
  COMMTIMEOUTS timeouts;
  memset(&dcb, 0, sizeof dcb);
  dcb.DCBlength = sizeof dcb;
  if (!GetCommState(handle, &dcb)) return 0;
  dcb.BaudRate = s->baud_rate;
  dcb.ByteSize = (BYTE)s->data_bits;
  dcb.Parity = kParities[s->parity];
  dcb.StopBits = kStopBits[s->stop_bits];
  dcb.fBinary = TRUE;
  dcb.fParity = s->parity != SERIAL_PARITY_NONE;
  dcb.fOutxCtsFlow = s->flow == SERIAL_FLOW_RTS_CTS;
  dcb.fRtsControl = s->flow == SERIAL_FLOW_RTS_CTS ? RTS_CONTROL_HANDSHAKE : RTS_CONTROL_ENABLE;
  dcb.fOutxDsrFlow = s->flow == SERIAL_FLOW_DTR_DSR;
  dcb.fDtrControl = s->flow == SERIAL_FLOW_DTR_DSR ? DTR_CONTROL_HANDSHAKE : DTR_CONTROL_ENABLE;
  dcb.fDsrSensitivity = FALSE;
  dcb.fOutX = dcb.fInX = s->flow == SERIAL_FLOW_XON_XOFF;
  dcb.XonChar = 0x11;
  dcb.XoffChar = 0x13;
  dcb.XonLim = 256;
  dcb.XoffLim = 256;
  dcb.fNull = FALSE;
  dcb.fAbortOnError = FALSE;
  if (!SetCommState(handle, &dcb)) return 0;
  /* A read waits for its first byte without a bound and returns once the line has been quiet
   * for 10 ms after it (or the buffer is full). The form "MAXDWORD, MAXDWORD, n" (return at the
   * first byte) would do as well on Windows, but Wine never completes such a read. A write ends
   * after at most WRITE_SLICE_MS with what the driver took by then, and SerialWrite goes on with
   * the rest until the port's time-out: so a write always reports what went out, also where a
   * pending write would not be completed when the device takes data again (Wine). */
  timeouts.ReadIntervalTimeout = 10;
  timeouts.ReadTotalTimeoutMultiplier = 0;
  timeouts.ReadTotalTimeoutConstant = 0;
  timeouts.WriteTotalTimeoutMultiplier = 0;
  timeouts.WriteTotalTimeoutConstant = WRITE_SLICE_MS;
  return SetCommTimeouts(handle, &timeouts);
}

static void FreeDevice(DevDevice* device) {
  if (device->read.hEvent != NULL) CloseHandle(device->read.hEvent);
  if (device->write.hEvent != NULL) CloseHandle(device->write.hEvent);
  if (device->handle != INVALID_HANDLE_VALUE) CloseHandle(device->handle);
  SkHeapFree(device);
}

int SerialConnect(const void* raw, DevWaker* waker, DevDevice** out, uint32_t* lines, DevText* reason) {
  const SerialSettings* settings = (const SerialSettings*)raw;
  DevText path;
  DevDevice* device = (DevDevice*)SkHeapAlloc(sizeof(DevDevice));
  DWORD status = 0;
  if (device == NULL) {
    DevTextReason(reason, &settings->device, "cannot open", ERROR_NOT_ENOUGH_MEMORY);
    return 0;
  }
  device->handle = INVALID_HANDLE_VALUE;
  device->waker = waker;
  device->name = settings->device;
  /* "COM3" becomes "\\.\COM3", which also reaches COM10 and above; a full path stays as it is. */
  DevTextClear(&path);
  if (settings->device.length < 2 || settings->device.units[0] != '\\' || settings->device.units[1] != '\\') {
    DevTextAscii(&path, "\\\\.\\");
  }
  DevTextAppend(&path, &settings->device);
  if (path.length >= DEV_TEXT_UNITS) {
    DevTextReason(reason, &settings->device, "cannot open", ERROR_FILENAME_EXCED_RANGE);
    FreeDevice(device);
    return 0;
  }
  path.units[path.length] = 0;
  device->read.hEvent = CreateEventW(NULL, TRUE, FALSE, NULL);
  device->write.hEvent = CreateEventW(NULL, TRUE, FALSE, NULL);
  if (device->read.hEvent != NULL && device->write.hEvent != NULL) {
    device->handle = CreateFileW((const wchar_t*)path.units, GENERIC_READ | GENERIC_WRITE, 0, NULL, OPEN_EXISTING,
                                 FILE_FLAG_OVERLAPPED, NULL);
  }
  if (device->handle == INVALID_HANDLE_VALUE) {
    DevTextReason(reason, &settings->device, "cannot open", GetLastError());
    FreeDevice(device);
    return 0;
  }
  {
    DCB probe;
    memset(&probe, 0, sizeof probe);
    probe.DCBlength = sizeof probe;
    device->is_comm = GetCommState(device->handle, &probe);
  }
  if (device->is_comm && !ApplyLineSettings(device->handle, settings)) {
    DevTextReason(reason, &settings->device, "cannot apply the line settings", GetLastError());
    FreeDevice(device);
    return 0;
  }
  device->can_read = 1;
  device->has_lines = device->is_comm && GetCommModemStatus(device->handle, &status);
  device->lines = device->has_lines ? ToLines(status) : 0;
  *lines = device->lines;
  *out = device;
  return 1;
}

/* A call that ended at one of the driver's time-outs took what its count says; Wine reports that
 * as a failure with ERROR_TIMEOUT, Windows as a success. */
static int TimedOut(DWORD error) { return error == ERROR_TIMEOUT || error == ERROR_SEM_TIMEOUT; }

/* Ends a pending overlapped call and takes its count. */
static DWORD CancelAndCount(DevDevice* device, OVERLAPPED* call) {
  DWORD done = 0;
  CancelIoEx(device->handle, call);
  GetOverlappedResult(device->handle, call, &done, TRUE);
  return done;
}

DevIo SerialRead(DevDevice* device, unsigned char* buffer, uint32_t capacity, uint32_t* got, uint32_t* lines,
                 DevText* reason) {
  HANDLE waits[2];
  DWORD done = 0, waited;
  if (!device->can_read) {
    /* Only the waker ends this device's wait: it takes no input. */
    WaitForSingleObject(device->waker->event, INFINITE);
    return DEV_IO_CANCELLED;
  }
  if (!device->read_pending) {
    ResetEvent(device->read.hEvent);
    if (ReadFile(device->handle, buffer, capacity, NULL, &device->read)) {
      if (!GetOverlappedResult(device->handle, &device->read, &done, FALSE)) done = 0;
      *got = done;
      return done != 0 ? DEV_IO_DONE : DEV_IO_IDLE;
    }
    if (GetLastError() != ERROR_IO_PENDING) {
      const DWORD error = GetLastError();
      if (!device->is_comm && (error == ERROR_INVALID_FUNCTION || error == ERROR_NOT_SUPPORTED)) {
        device->can_read = 0; /* a printer without a back channel */
        return DEV_IO_IDLE;
      }
      DevTextReason(reason, &device->name, "device lost", error);
      return DEV_IO_LOST;
    }
    device->read_pending = 1;
  }
  waits[0] = device->read.hEvent;
  waits[1] = device->waker->event;
  waited = WaitForMultipleObjects(2, waits, FALSE, device->has_lines ? LINE_POLL_MS : INFINITE);
  if (waited == WAIT_OBJECT_0 + 1) return DEV_IO_CANCELLED; /* the read stays pending until Disconnect */
  if (waited == WAIT_TIMEOUT) {
    DWORD status = 0;
    if (!GetCommModemStatus(device->handle, &status)) {
      DevTextReason(reason, &device->name, "cannot read the modem lines", GetLastError());
      return DEV_IO_LOST;
    }
    if (ToLines(status) == device->lines) return DEV_IO_IDLE;
    device->lines = *lines = ToLines(status);
    return DEV_IO_LINES;
  }
  if (waited != WAIT_OBJECT_0) {
    DevTextReason(reason, &device->name, "cannot wait for input", GetLastError());
    return DEV_IO_LOST;
  }
  device->read_pending = 0;
  if (!GetOverlappedResult(device->handle, &device->read, &done, FALSE)) {
    const DWORD error = GetLastError();
    if (!TimedOut(error)) {
      /* A USB adapter pulled out ends its reads with an error. */
      DevTextReason(reason, &device->name, "device lost", error);
      return DEV_IO_LOST;
    }
    done = (DWORD)device->read.InternalHigh;
  }
  *got = done;
  return done != 0 ? DEV_IO_DONE : DEV_IO_IDLE;
}

/* One overlapped write of `size` bytes, waited for until `until`: DONE when it completed (with
 * `done` bytes, which may be fewer than asked), else TIMEOUT, CANCELLED or LOST, with `done` what
 * the driver had taken before the cancel. */
static DevIo WriteOnce(DevDevice* device, const unsigned char* data, uint32_t size, uint64_t until, DWORD* done,
                       DevText* reason) {
  HANDLE waits[2];
  const uint64_t now = DevNowMs();
  DWORD waited, error;
  *done = 0;
  ResetEvent(device->write.hEvent);
  if (WriteFile(device->handle, data, size, NULL, &device->write)) {
    GetOverlappedResult(device->handle, &device->write, done, FALSE);
    return DEV_IO_DONE;
  }
  error = GetLastError();
  if (TimedOut(error)) {
    *done = (DWORD)device->write.InternalHigh;
    return DEV_IO_DONE;
  }
  if (error != ERROR_IO_PENDING) {
    DevTextReason(reason, &device->name, "write failed", error);
    return DEV_IO_LOST;
  }
  waits[0] = device->write.hEvent;
  waits[1] = device->waker->event;
  waited = WaitForMultipleObjects(2, waits, FALSE, now >= until ? 0 : (DWORD)(until - now));
  if (waited == WAIT_OBJECT_0) {
    if (GetOverlappedResult(device->handle, &device->write, done, FALSE)) return DEV_IO_DONE;
    error = GetLastError();
    if (TimedOut(error)) {
      *done = (DWORD)device->write.InternalHigh;
      return DEV_IO_DONE;
    }
    *done = CancelAndCount(device, &device->write);
    DevTextReason(reason, &device->name, "write failed", error);
    return DEV_IO_LOST;
  }
  error = GetLastError();
  /* Out of time, woken, or the wait failed: the driver reports what it took before the cancel. */
  *done = CancelAndCount(device, &device->write);
  if (*done == size) return DEV_IO_DONE;
  if (waited == WAIT_TIMEOUT) return DEV_IO_TIMEOUT;
  if (waited == WAIT_OBJECT_0 + 1) return DEV_IO_CANCELLED;
  DevTextReason(reason, &device->name, "cannot wait for output", error);
  return DEV_IO_LOST;
}

DevIo SerialWrite(DevDevice* device, const unsigned char* data, uint32_t size, uint32_t timeout_ms, uint32_t* written,
                  DevText* reason) {
  /* A driver may complete a write with part of the bytes (Wine's does, on a full pseudo-terminal):
   * the rest goes in further writes until the time is up. */
  const uint64_t until = DevNowMs() + timeout_ms;
  *written = 0;
  while (*written < size) {
    DWORD done = 0;
    const DevIo io = WriteOnce(device, data + *written, size - *written, until, &done, reason);
    *written += done;
    if (io != DEV_IO_DONE) return io;
    if (done == 0) {
      if (DevNowMs() >= until) return DEV_IO_TIMEOUT;
      Sleep(1); /* the driver took nothing and said so at once: do not spin */
    }
  }
  return DEV_IO_DONE;
}

void SerialDisconnect(DevDevice* device) {
  if (device->read_pending) CancelAndCount(device, &device->read);
  FreeDevice(device);
}
