/* The serial module's device calls on POSIX: a tty in raw mode through termios, or a device file
 * that is not a tty (a printer's /dev/usb/lp0) as it is. The descriptor is non-blocking; every wait
 * is a poll that also watches the port's waker. */
#define _DEFAULT_SOURCE /* CRTSCTS, CMSPAR, cfmakeraw, the B* rates above 38400 */

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include "serial.h"

/* How often the modem lines are looked at while nothing else happens. */
#define LINE_POLL_MS 200

struct DevDevice {
  int fd;
  int is_tty;
  int has_lines; /* the tty reports its modem lines */
  uint32_t lines;
  uint32_t drain_ms;
  DevWaker* waker;
  DevText name;
};

typedef struct RateEntry {
  uint32_t rate;
  speed_t code;
} RateEntry;

static const RateEntry kRates[] = {
    {50, B50},         {75, B75},         {110, B110},       {134, B134},       {150, B150},
    {200, B200},       {300, B300},       {600, B600},       {1200, B1200},     {1800, B1800},
    {2400, B2400},     {4800, B4800},     {9600, B9600},     {19200, B19200},   {38400, B38400},
    {57600, B57600},   {115200, B115200}, {230400, B230400}, {460800, B460800}, {500000, B500000},
    {576000, B576000}, {921600, B921600}, {1000000, B1000000}, {1152000, B1152000}, {1500000, B1500000},
    {2000000, B2000000}, {2500000, B2500000}, {3000000, B3000000}, {3500000, B3500000}, {4000000, B4000000},
};

static int RateCode(uint32_t rate, speed_t* code) {
  size_t i;
  for (i = 0; i < sizeof kRates / sizeof kRates[0]; ++i) {
    if (kRates[i].rate == rate) {
      *code = kRates[i].code;
      return 1;
    }
  }
  return 0;
}

uint32_t SerialCheckSettings(const SerialSettings* settings) {
  speed_t code;
  if (!RateCode(settings->baud_rate, &code)) return SKR_INVALID_PARAMETER;
  if (settings->flow == SERIAL_FLOW_DTR_DSR) return SKR_INVALID_PARAMETER; /* termios has no DTR/DSR handshake */
  return SKR_SUCCESS;
}

static int ApplyLineSettings(int fd, const SerialSettings* s) {
  static const tcflag_t kSizes[] = {CS5, CS6, CS7, CS8};
  struct termios t;
  speed_t rate = B9600; /* SerialCheckSettings let only known rates through */
  if (tcgetattr(fd, &t) != 0) return 0;
  RateCode(s->baud_rate, &rate);
  cfmakeraw(&t);
  cfsetispeed(&t, rate);
  cfsetospeed(&t, rate);
  t.c_cflag &= ~(tcflag_t)(CSIZE | PARENB | PARODD | CMSPAR | CSTOPB | CRTSCTS);
  t.c_cflag |= kSizes[s->data_bits - 5] | CREAD | CLOCAL;
  if (s->parity != SERIAL_PARITY_NONE) t.c_cflag |= PARENB;
  if (s->parity == SERIAL_PARITY_ODD || s->parity == SERIAL_PARITY_MARK) t.c_cflag |= PARODD;
  if (s->parity == SERIAL_PARITY_MARK || s->parity == SERIAL_PARITY_SPACE) t.c_cflag |= CMSPAR;
  if (s->stop_bits != SERIAL_STOP_1) t.c_cflag |= CSTOPB;
  t.c_iflag &= ~(tcflag_t)(IXON | IXOFF | IXANY);
  if (s->flow == SERIAL_FLOW_RTS_CTS) t.c_cflag |= CRTSCTS;
  if (s->flow == SERIAL_FLOW_XON_XOFF) t.c_iflag |= IXON | IXOFF;
  t.c_cc[VMIN] = 1;
  t.c_cc[VTIME] = 0;
  return tcsetattr(fd, TCSANOW, &t) == 0;
}

static int ReadLines(int fd, uint32_t* lines) {
  int bits = 0;
  if (ioctl(fd, TIOCMGET, &bits) != 0) return 0;
  *lines = ((bits & TIOCM_CTS) ? SK_DEVICE_LINE_CTS : 0) | ((bits & TIOCM_DSR) ? SK_DEVICE_LINE_DSR : 0) |
           ((bits & TIOCM_RNG) ? SK_DEVICE_LINE_RING : 0) | ((bits & TIOCM_CAR) ? SK_DEVICE_LINE_DCD : 0);
  return 1;
}

int SerialConnect(const void* raw, DevWaker* waker, DevDevice** out, uint32_t* lines, DevText* reason) {
  const SerialSettings* settings = (const SerialSettings*)raw;
  char path[DEV_TEXT_UNITS * 3 + 1];
  DevDevice* device;
  int fd;
  if (!DevTextToUtf8(&settings->device, path, sizeof path)) {
    DevTextReason(reason, &settings->device, "cannot open", ENAMETOOLONG);
    return 0;
  }
  fd = open(path, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  /* Some printer device files take no input. */
  if (fd < 0 && (errno == EACCES || errno == EINVAL)) fd = open(path, O_WRONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    DevTextReason(reason, &settings->device, "cannot open", (uint32_t)errno);
    return 0;
  }
  device = (DevDevice*)SkHeapAlloc(sizeof(DevDevice));
  if (device == NULL) {
    close(fd);
    DevTextReason(reason, &settings->device, "cannot open", ENOMEM);
    return 0;
  }
  device->fd = fd;
  device->waker = waker;
  device->name = settings->device;
  device->drain_ms = settings->write_timeout_ms;
  device->is_tty = isatty(fd);
  if (device->is_tty) {
    if (!ApplyLineSettings(fd, settings)) {
      DevTextReason(reason, &settings->device, "cannot apply the line settings", (uint32_t)errno);
      close(fd);
      SkHeapFree(device);
      return 0;
    }
    ioctl(fd, TIOCEXCL); /* like a COM port: one user at a time (root may still open it) */
    device->has_lines = ReadLines(fd, &device->lines);
  }
  *lines = device->has_lines ? device->lines : 0;
  *out = device;
  return 1;
}

/* Polls the device for `events` and the waker, for at most `ms` (-1: no bound). */
static int Wait(DevDevice* device, short events, int ms, short* revents, int* woken) {
  struct pollfd fds[2];
  int n;
  fds[0].fd = device->fd;
  fds[0].events = events;
  fds[0].revents = 0;
  fds[1].fd = device->waker->fds[0];
  fds[1].events = POLLIN;
  fds[1].revents = 0;
  do {
    n = poll(fds, 2, ms);
  } while (n < 0 && errno == EINTR);
  *revents = fds[0].revents;
  *woken = (fds[1].revents & POLLIN) != 0;
  return n;
}

DevIo SerialRead(DevDevice* device, unsigned char* buffer, uint32_t capacity, uint32_t* got, uint32_t* lines,
                 DevText* reason) {
  short revents;
  int woken;
  ssize_t n;
  /* A device opened for writing only is still watched for hang-ups (poll reports them always). */
  const int n_ready = Wait(device, POLLIN, device->has_lines ? LINE_POLL_MS : -1, &revents, &woken);
  if (woken) return DEV_IO_CANCELLED;
  if (n_ready < 0) {
    DevTextReason(reason, &device->name, "cannot wait for input", (uint32_t)errno);
    return DEV_IO_LOST;
  }
  if (n_ready == 0) {
    uint32_t now = 0;
    if (!ReadLines(device->fd, &now)) {
      DevTextReason(reason, &device->name, "cannot read the modem lines", (uint32_t)errno);
      return DEV_IO_LOST;
    }
    if (now == device->lines) return DEV_IO_IDLE;
    device->lines = *lines = now;
    return DEV_IO_LINES;
  }
  if (revents & POLLNVAL) {
    DevTextReason(reason, &device->name, "device closed", EBADF);
    return DEV_IO_LOST;
  }
  n = read(device->fd, buffer, capacity);
  if (n > 0) {
    *got = (uint32_t)n;
    return DEV_IO_DONE;
  }
  if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
    if (!(revents & (POLLHUP | POLLERR))) return DEV_IO_IDLE;
    errno = EIO;
  }
  /* End of file on a tty, or an error: the device hung up (adapter pulled, other end gone). */
  DevTextReason(reason, &device->name, n == 0 ? "device hung up" : "device lost", n == 0 ? (uint32_t)EIO : (uint32_t)errno);
  return DEV_IO_LOST;
}

DevIo SerialWrite(DevDevice* device, const unsigned char* data, uint32_t size, uint32_t timeout_ms, uint32_t* written,
                  DevText* reason) {
  const uint64_t until = DevNowMs() + timeout_ms;
  *written = 0;
  while (*written < size) {
    const ssize_t n = write(device->fd, data + *written, size - *written);
    short revents;
    int woken;
    uint64_t now;
    if (n > 0) {
      *written += (uint32_t)n;
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno != EAGAIN) {
      DevTextReason(reason, &device->name, "write failed", (uint32_t)errno);
      return DEV_IO_LOST;
    }
    now = DevNowMs();
    if (now >= until) return DEV_IO_TIMEOUT;
    if (Wait(device, POLLOUT, (int)(until - now), &revents, &woken) < 0) {
      DevTextReason(reason, &device->name, "cannot wait for output", (uint32_t)errno);
      return DEV_IO_LOST;
    }
    if (woken) return DEV_IO_CANCELLED;
    if ((revents & (POLLERR | POLLHUP | POLLNVAL)) && !(revents & POLLOUT)) {
      DevTextReason(reason, &device->name, "device lost", EIO);
      return DEV_IO_LOST;
    }
  }
  return DEV_IO_DONE;
}

void SerialDisconnect(DevDevice* device) {
  if (device->is_tty) {
    /* What a write handed to the driver still goes out, for as long as a write may take; then the
     * rest is dropped, so that close does not wait for a device that stopped taking data. */
    const uint64_t until = DevNowMs() + device->drain_ms;
    int queued = 0;
    while (ioctl(device->fd, TIOCOUTQ, &queued) == 0 && queued > 0 && DevNowMs() < until) {
      usleep(10000);
    }
    tcflush(device->fd, TCOFLUSH);
  }
  close(device->fd);
  SkHeapFree(device);
}
