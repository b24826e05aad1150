// POSIX has no service manager of ours to call: the services are systemd units (packaging/linux).
#include "platform/service_manager.h"

namespace orlenda::platform {

bool HasServiceManager() { return false; }
void ServiceHandle::Close() { handle_ = 0; }
uint32_t OpenServiceManager(ManagerAccess, ServiceHandle*) { return kErrorNotSupported; }
uint32_t CreateAutoStartService(const ServiceHandle&, const char16_t*, const char16_t*, const char16_t*,
                                const char16_t*, ServiceHandle*) {
  return kErrorNotSupported;
}
uint32_t OpenNamedService(const ServiceHandle&, const char16_t*, ServiceAccess, ServiceHandle*) {
  return kErrorNotSupported;
}
uint32_t StartNamedService(const ServiceHandle&) { return kErrorNotSupported; }
uint32_t StopNamedService(const ServiceHandle&, ServiceStatus*) { return kErrorNotSupported; }
uint32_t QueryNamedService(const ServiceHandle&, ServiceStatus*) { return kErrorNotSupported; }
uint32_t DeleteNamedService(const ServiceHandle&) { return kErrorNotSupported; }

}  // namespace orlenda::platform
