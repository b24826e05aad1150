#include "service/service_host.h"

#include <cstdio>

#include "common/log_format.h"
#include "logging/log.h"
#include "service/run_mode.h"
#include "service/service_control.h"

namespace orlenda {
namespace {

constexpr uint32_t kStartWaitHintMs = 3000;
constexpr std::size_t kEventLineChars = 256;

// The one host of the process, for the service manager's and the console's callbacks.
std::atomic<ServiceHost*> g_host{nullptr};

void ServiceMainThunk() {
  if (ServiceHost* host = g_host.load()) host->ServiceMain();
}

void ControlThunk(uint32_t control) {
  if (ServiceHost* host = g_host.load()) host->OnControl(control);
}

void InterruptThunk() {
  if (ServiceHost* host = g_host.load()) host->SignalStop();
}

template <class... A>
WString Format(const char16_t* format, const A&... args) {
  char16_t buffer[kLogBufferChars];
  const std::size_t length = FormatLog(buffer, format, args...);
  return WString(buffer, length);
}

}  // namespace

ServiceHost::ServiceHost(const ServiceIdentity& identity, Body body, platform::ServiceSystem& system)
    : identity_(identity), body_(body), system_(system) {
  g_host.store(this);
}

ServiceHost::~ServiceHost() {
  ServiceHost* self = this;
  g_host.compare_exchange_strong(self, nullptr);
}

WString ServiceHost::Message(WStringView text) const {
  WString message(identity_.display_name);
  message += u": ";
  message += text;
  return message;
}

void ServiceHost::Say(const WString& message, uint32_t level) {
  Log(level, u"%s", message);
  if (tool_mode_) std::fprintf(stderr, "%s\n", WideToUtf8(View(message)).c_str());
}

int ServiceHost::Main(int argc, const char* const* argv) {
  switch (ParseRunMode(argc, argv)) {
    case RunMode::kInstall:
      tool_mode_ = true;
      return static_cast<int>(InstallService(*this));
    case RunMode::kRemove:
      tool_mode_ = true;
      return static_cast<int>(RemoveService(*this));
    case RunMode::kStop:
      tool_mode_ = true;
      return static_cast<int>(StopService(*this));
    case RunMode::kStart:
      tool_mode_ = true;
      return static_cast<int>(StartInstalledService(*this));
    case RunMode::kDebug:
      console_.store(true, std::memory_order_release);
      return RunConsole();
    case RunMode::kDispatcher:
      break;
  }
  const uint32_t error = system_.RunDispatcher(identity_.name, &ServiceMainThunk);
  if (error != 0) {
    ReportError(Message(u"StartServiceCtrlDispatcher failed."));
    return static_cast<int>(error);
  }
  return 0;
}

int ServiceHost::RunConsole() {
  if (!system_.SetInterruptHandler(&InterruptThunk)) {
    const uint32_t error = system_.LastError();
    Say(Message(Format(u"SetConsoleCtrlHandler failed - error = %d", error)));
    return static_cast<int>(error);
  }
  const uint32_t result = body_(*this);
  if (!identity_.console_result_reversed) return static_cast<int>(result);
  // Read in reverse on purpose: a failed start (nonzero) ends the console run quietly with 0, a
  // normal stop (0) reports the thread's last error as a failure and exits with it.
  if (result != 0) return 0;
  const uint32_t error = system_.LastError();
  Say(Message(Format(u"ServiceStart failed - error = %d", error)));
  return static_cast<int>(error);
}

void ServiceHost::ServiceMain() {
  if (!system_.RegisterControlHandler(identity_.name, &ControlThunk)) return;
  status_.service_type = platform::kServiceOwnProcess;
  status_.service_exit_code = 0;
  if (ReportStatus(platform::kServiceStartPending, 0, kStartWaitHintMs)) body_(*this);
  // A start that failed has reported stopped, with its exit code, itself; a second report would
  // put the last error (mostly 0) in its place, and the service manager would show that instead.
  if (status_.current_state == platform::kServiceStopped) return;
  ReportStatus(platform::kServiceStopped, last_error_, 0);
}

void ServiceHost::OnControl(uint32_t control) {
  if (control == platform::kServiceControlStop) {
    ReportStatus(platform::kServiceStopPending, 0, 0);
    SignalStop();
    return;
  }
  ReportStatus(status_.current_state, 0, 0);  // interrogate, and anything else: say where we are
}

bool ServiceHost::ReportStatus(uint32_t state, uint32_t exit_code, uint32_t wait_hint) {
  if (console_mode()) return true;
  status_.current_state = state;
  status_.win32_exit_code = exit_code;
  status_.wait_hint = wait_hint;
  status_.controls_accepted = state == platform::kServiceStartPending ? 0 : platform::kServiceAcceptStop;
  status_.check_point =
      state == platform::kServiceRunning || state == platform::kServiceStopped ? 0 : check_point_++;
  if (!system_.SetStatus(status_)) {
    ReportError(Message(u"SetServiceStatus failed."));
    return false;
  }
  return true;
}

void ServiceHost::ReportError(const WString& message) {
  if (console_mode()) return;
  last_error_ = system_.LastError();
  WString line = Format(u"%s error: %d", identity_.event_source, last_error_);
  if (line.size() >= kEventLineChars) line.resize(kEventLineChars - 1);
  system_.WriteErrorEvent(identity_.event_source, line.c_str(), message.c_str());
}

}  // namespace orlenda
