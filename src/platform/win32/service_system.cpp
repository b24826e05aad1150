#include "platform/service_system.h"

#include <atomic>

#include "platform/win32/windows.h"

namespace orlenda::platform {
namespace {

std::atomic<ServiceSystem::ServiceMain> g_main{nullptr};
std::atomic<ServiceSystem::ControlHandler> g_control{nullptr};
std::atomic<ServiceSystem::InterruptHandler> g_interrupt{nullptr};
SERVICE_STATUS_HANDLE g_status = nullptr;

void WINAPI ServiceMainEntry(DWORD, LPWSTR*) {
  ServiceSystem::ServiceMain main = g_main.load();
  if (main != nullptr) main();
}

void WINAPI ControlEntry(DWORD control) {
  ServiceSystem::ControlHandler handler = g_control.load();
  if (handler != nullptr) handler(control);
}

// Ctrl+C and Ctrl+Break only; every other console event keeps its default handling.
BOOL WINAPI ConsoleEntry(DWORD type) {
  if (type != CTRL_C_EVENT && type != CTRL_BREAK_EVENT) return FALSE;
  ServiceSystem::InterruptHandler handler = g_interrupt.load();
  if (handler != nullptr) handler();
  return TRUE;
}

class WindowsServiceSystem : public ServiceSystem {
 public:
  uint32_t RunDispatcher(const char16_t* name, ServiceMain main) override {
    g_main.store(main);
    SERVICE_TABLE_ENTRYW table[2] = {{const_cast<wchar_t*>(AsWide(name)), ServiceMainEntry}, {nullptr, nullptr}};
    return StartServiceCtrlDispatcherW(table) ? 0 : GetLastError();
  }
  bool RegisterControlHandler(const char16_t* name, ControlHandler handler) override {
    g_control.store(handler);
    g_status = RegisterServiceCtrlHandlerW(AsWide(name), ControlEntry);
    return g_status != nullptr;
  }
  bool SetStatus(const ServiceStatus& status) override {
    SERVICE_STATUS s{};
    s.dwServiceType = status.service_type;
    s.dwCurrentState = status.current_state;
    s.dwControlsAccepted = status.controls_accepted;
    s.dwWin32ExitCode = status.win32_exit_code;
    s.dwServiceSpecificExitCode = status.service_exit_code;
    s.dwCheckPoint = status.check_point;
    s.dwWaitHint = status.wait_hint;
    return SetServiceStatus(g_status, &s) != FALSE;
  }
  bool WriteErrorEvent(const char16_t* source, const char16_t* first, const char16_t* second) override {
    HANDLE log = RegisterEventSourceW(nullptr, AsWide(source));
    if (log == nullptr) return false;
    LPCWSTR strings[2] = {AsWide(first), AsWide(second)};
    ReportEventW(log, EVENTLOG_ERROR_TYPE, 0, 0, nullptr, 2, 0, strings, nullptr);
    DeregisterEventSource(log);
    return true;
  }
  void SetExecutionState(uint32_t flags) override { SetThreadExecutionState(flags); }
  uint32_t LastError() override { return GetLastError(); }
  bool SetInterruptHandler(InterruptHandler handler) override {
    g_interrupt.store(handler);
    return SetConsoleCtrlHandler(ConsoleEntry, TRUE) != FALSE;
  }
};

}  // namespace

ServiceSystem& TheServiceSystem() {
  static WindowsServiceSystem system;
  return system;
}

}  // namespace orlenda::platform
