#include "platform/service_manager.h"

#include "platform/win32/windows.h"

namespace orlenda::platform {
namespace {

SC_HANDLE Raw(const ServiceHandle& handle) { return reinterpret_cast<SC_HANDLE>(handle.raw()); }

void Copy(const SERVICE_STATUS& from, ServiceStatus* to) {
  to->service_type = from.dwServiceType;
  to->current_state = from.dwCurrentState;
  to->controls_accepted = from.dwControlsAccepted;
  to->win32_exit_code = from.dwWin32ExitCode;
  to->service_exit_code = from.dwServiceSpecificExitCode;
  to->check_point = from.dwCheckPoint;
  to->wait_hint = from.dwWaitHint;
}

}  // namespace

bool HasServiceManager() { return true; }

void ServiceHandle::Close() {
  if (handle_ != 0) CloseServiceHandle(reinterpret_cast<SC_HANDLE>(handle_));
  handle_ = 0;
}

uint32_t OpenServiceManager(ManagerAccess access, ServiceHandle* manager) {
  SC_HANDLE handle =
      OpenSCManagerW(nullptr, nullptr, access == ManagerAccess::kAll ? SC_MANAGER_ALL_ACCESS : SC_MANAGER_CONNECT);
  if (handle == nullptr) return GetLastError();
  manager->Reset(reinterpret_cast<uintptr_t>(handle));
  return 0;
}

uint32_t CreateAutoStartService(const ServiceHandle& manager, const char16_t* name, const char16_t* display_name,
                                const char16_t* binary_path, const char16_t* dependency, ServiceHandle* service) {
  // The dependencies are a list of names, each ended by a 0, the list by another 0.
  wchar_t dependencies[256] = {};
  if (dependency != nullptr) {
    std::size_t i = 0;
    for (; dependency[i] != 0 && i + 2 < sizeof(dependencies) / sizeof(dependencies[0]); ++i) {
      dependencies[i] = static_cast<wchar_t>(dependency[i]);
    }
  }
  SC_HANDLE handle = CreateServiceW(Raw(manager), AsWide(name), AsWide(display_name), SERVICE_ALL_ACCESS,
                                    SERVICE_WIN32_OWN_PROCESS, SERVICE_AUTO_START, SERVICE_ERROR_NORMAL,
                                    AsWide(binary_path), nullptr, nullptr,
                                    dependency != nullptr ? dependencies : nullptr, nullptr, nullptr);
  if (handle == nullptr) return GetLastError();
  service->Reset(reinterpret_cast<uintptr_t>(handle));
  return 0;
}

uint32_t OpenNamedService(const ServiceHandle& manager, const char16_t* name, ServiceAccess access,
                          ServiceHandle* service) {
  const DWORD rights = access == ServiceAccess::kAll ? SERVICE_ALL_ACCESS : (SERVICE_STOP | SERVICE_QUERY_STATUS);
  SC_HANDLE handle = OpenServiceW(Raw(manager), AsWide(name), rights);
  if (handle == nullptr) return GetLastError();
  service->Reset(reinterpret_cast<uintptr_t>(handle));
  return 0;
}

uint32_t StartNamedService(const ServiceHandle& service) {
  return StartServiceW(Raw(service), 0, nullptr) ? 0 : GetLastError();
}

uint32_t StopNamedService(const ServiceHandle& service, ServiceStatus* status) {
  SERVICE_STATUS s{};
  const bool ok = ControlService(Raw(service), SERVICE_CONTROL_STOP, &s) != FALSE;
  const DWORD error = ok ? 0 : GetLastError();
  Copy(s, status);
  return error;
}

uint32_t QueryNamedService(const ServiceHandle& service, ServiceStatus* status) {
  SERVICE_STATUS s{};
  if (!QueryServiceStatus(Raw(service), &s)) return GetLastError();
  Copy(s, status);
  return 0;
}

uint32_t DeleteNamedService(const ServiceHandle& service) {
  return DeleteService(Raw(service)) ? 0 : GetLastError();
}

}  // namespace orlenda::platform
