// The service manager as the command-line verbs use it: install, start, stop, query and remove a
// service. Windows only (the Service Control Manager); on POSIX the services are systemd units and
// every call fails with kErrorNotSupported.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/service_system.h"

namespace orlenda::platform {

constexpr uint32_t kErrorNotSupported = 50;
constexpr uint32_t kErrorServiceAlreadyRunning = 1056;
constexpr uint32_t kErrorServiceNotActive = 1062;
constexpr uint32_t kErrorServiceExists = 1073;

// Whether the platform has a service manager that these calls reach.
bool HasServiceManager();

// A handle of the service manager or of one service; closed on destruction.
class ServiceHandle {
 public:
  ServiceHandle() = default;
  ~ServiceHandle() { Close(); }
  ServiceHandle(const ServiceHandle&) = delete;
  ServiceHandle& operator=(const ServiceHandle&) = delete;
  void Close();
  bool is_open() const { return handle_ != 0; }
  uintptr_t raw() const { return handle_; }
  void Reset(uintptr_t handle) { Close(); handle_ = handle; }

 private:
  uintptr_t handle_ = 0;
};

enum class ManagerAccess { kAll, kConnect };
enum class ServiceAccess { kAll, kStopAndQuery };

uint32_t OpenServiceManager(ManagerAccess access, ServiceHandle* manager);
// CreateServiceW: own process, started automatically, normal error control, LocalSystem, the
// given binary path and one dependency (or none).
uint32_t CreateAutoStartService(const ServiceHandle& manager, const char16_t* name, const char16_t* display_name,
                                const char16_t* binary_path, const char16_t* dependency, ServiceHandle* service);
uint32_t OpenNamedService(const ServiceHandle& manager, const char16_t* name, ServiceAccess access,
                          ServiceHandle* service);
uint32_t StartNamedService(const ServiceHandle& service);
// ControlService(SERVICE_CONTROL_STOP); `status` gets the status it reports.
uint32_t StopNamedService(const ServiceHandle& service, ServiceStatus* status);
uint32_t QueryNamedService(const ServiceHandle& service, ServiceStatus* status);
uint32_t DeleteNamedService(const ServiceHandle& service);

}  // namespace orlenda::platform
