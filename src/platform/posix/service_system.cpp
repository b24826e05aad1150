// The service on POSIX: a daemon under systemd (or any supervisor). The stop control is SIGTERM or
// SIGINT, taken by a thread of its own with sigwait; status reports become systemd's readiness
// notifications when $NOTIFY_SOCKET names a socket (READY=1 once running, STOPPING=1 on the way
// down), and the event log is syslog.
#include "platform/service_system.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/errors.h"
#include "platform/posix/stop_signals.h"
#include "platform/posix/utf8.h"

namespace orlenda::platform {
namespace {

std::atomic<ServiceSystem::ControlHandler> g_control{nullptr};
std::atomic<ServiceSystem::InterruptHandler> g_interrupt{nullptr};
std::atomic<bool> g_signal_thread{false};

// A stop signal: the console's interrupt when one is set, else the service's stop control.
void OnStopSignal(void*) {
  if (ServiceSystem::InterruptHandler interrupt = g_interrupt.load()) {
    interrupt();
  } else if (ServiceSystem::ControlHandler control = g_control.load()) {
    control(kServiceControlStop);
  }
}

// Once per process.
bool TakeStopSignalsOnce() {
  if (g_signal_thread.exchange(true)) return true;
  return TakeStopSignals(&OnStopSignal, nullptr);
}

// One notification to systemd, when it asked for them.
void Notify(const char* text) {
  const char* path = std::getenv("NOTIFY_SOCKET");
  if (path == nullptr || path[0] == '\0') return;
  sockaddr_un where{};
  where.sun_family = AF_UNIX;
  const std::size_t length = std::strlen(path);
  if (length >= sizeof(where.sun_path)) return;
  std::memcpy(where.sun_path, path, length);
  if (where.sun_path[0] == '@') where.sun_path[0] = '\0';  // the abstract namespace
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return;
  sendto(fd, text, std::strlen(text), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&where),
         static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length));
  close(fd);
}

// UTF-8 of a message for syslog, cut to what a line of it holds.
struct Narrow {
  explicit Narrow(const char16_t* text) {
    if (text == nullptr || Utf16ToUtf8(text, bytes, sizeof(bytes)) == kConversionFailed) bytes[0] = 0;
  }
  const char* c_str() const { return bytes; }
  char bytes[1024];
};

class PosixServiceSystem : public ServiceSystem {
 public:
  uint32_t RunDispatcher(const char16_t*, ServiceMain main) override {
    if (!TakeStopSignalsOnce()) return platform::LastError();
    main();
    return 0;
  }
  bool RegisterControlHandler(const char16_t*, ControlHandler handler) override {
    g_control.store(handler);
    return true;
  }
  bool SetStatus(const ServiceStatus& status) override {
    char text[96];
    switch (status.current_state) {
      case kServiceRunning: Notify("READY=1\nSTATUS=running"); break;
      case kServiceStopPending: Notify("STOPPING=1\nSTATUS=stopping"); break;
      case kServiceStopped:
        std::snprintf(text, sizeof(text), "STATUS=stopped, exit code %u", status.win32_exit_code);
        Notify(text);
        break;
      default: Notify("STATUS=starting"); break;
    }
    return true;
  }
  bool WriteErrorEvent(const char16_t* source, const char16_t* first, const char16_t* second) override {
    static Narrow ident(u"");  // openlog keeps the pointer: the text must stay
    ident = Narrow(source);
    openlog(ident.c_str(), LOG_PID, LOG_DAEMON);
    syslog(LOG_ERR, "%s %s", Narrow(first).c_str(), Narrow(second).c_str());
    closelog();
    return true;
  }
  void SetExecutionState(uint32_t) override {}  // nothing keeps a POSIX machine awake here
  uint32_t LastError() override { return platform::LastError(); }
  bool SetInterruptHandler(InterruptHandler handler) override {
    g_interrupt.store(handler);
    return TakeStopSignalsOnce();
  }
};

}  // namespace

ServiceSystem& TheServiceSystem() {
  static PosixServiceSystem system;
  return system;
}

}  // namespace orlenda::platform
