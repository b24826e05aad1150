#include "service/service_control.h"

#include "common/log_format.h"
#include "platform/module.h"
#include "platform/paths.h"
#include "platform/service_manager.h"
#include "platform/thread.h"
#include "service/service_host.h"

namespace orlenda {
namespace {

constexpr std::size_t kBinaryPathChars = 512;
constexpr uint32_t kPollMs = 1000;
constexpr int kStartPolls = 120;
constexpr int kRemoveStopPolls = 10;
constexpr uint32_t kServiceDidNotStart = 1077;  // ERROR_SERVICE_NEVER_STARTED
constexpr uint32_t kServiceDidNotStop = 3017;
constexpr uint32_t kStopTimedOut = 1053;        // ERROR_SERVICE_REQUEST_TIMEOUT

template <class... A>
WString Format(const char16_t* format, const A&... args) {
  char16_t buffer[kLogBufferChars];
  const std::size_t length = FormatLog(buffer, format, args...);
  return WString(buffer, length);
}

// Where a service manager is missing: what to do instead.
uint32_t NoServiceManager(ServiceHost& host, const char16_t* verb) {
  const char16_t* unit = host.identity().unit;
  host.Say(host.Message(Format(u"no service manager here to %s the service with: use the systemd unit "
                               u"packaging/linux/%s.service (see the README), for example: systemctl %s %s",
                               verb, unit, verb, unit)));
  return platform::kErrorNotSupported;
}

// Polls the service every second while it is in `pending`, at most `polls` more times (or without
// limit when `polls` is negative); its last state, or 0 when a query failed.
uint32_t WaitWhile(const platform::ServiceHandle& service, uint32_t pending, int polls) {
  platform::ServiceStatus status{};
  platform::SleepMs(kPollMs);
  if (platform::QueryNamedService(service, &status) != 0) return 0;
  for (int i = 0; status.current_state == pending && (polls < 0 || i < polls); ++i) {
    platform::SleepMs(kPollMs);
    if (platform::QueryNamedService(service, &status) != 0) break;
  }
  return status.current_state;
}

}  // namespace

uint32_t InstallService(ServiceHost& host) {
  const ServiceIdentity& id = host.identity();
  if (!platform::HasServiceManager()) {
    // The daemon needs its data all the same; the unit comes from the package.
    const uint32_t prepared = id.prepare_data != nullptr ? id.prepare_data(host) : 0;
    NoServiceManager(host, u"enable");
    return prepared;
  }
  char16_t path[kBinaryPathChars];
  if (platform::ExecutablePath(path, kBinaryPathChars) == 0) {
    const uint32_t error = host.system().LastError();
    host.Say(host.Message(Format(u"Unable to install %s - error = %d", id.display_name, error)));
    return error;
  }
  platform::ServiceHandle manager;
  uint32_t error = platform::OpenServiceManager(platform::ManagerAccess::kAll, &manager);
  if (error != 0) {
    host.Say(host.Message(Format(u"OpenSCManager failed - error = %d", error)));
    return error;
  }
  platform::ServiceHandle service;
  error = platform::CreateAutoStartService(manager, id.name, id.display_name, path, id.dependency, &service);
  if (error != 0) {
    host.Say(host.Message(Format(u"CreateService failed - error = %d", error)));
    return error;
  }
  service.Close();
  manager.Close();
  // Beyond registering: without a configuration the service could not start, so the default one
  // goes in place now (an existing one is never overwritten).
  return id.prepare_data != nullptr ? id.prepare_data(host) : 0;
}

uint32_t StopService(ServiceHost& host) {
  if (!platform::HasServiceManager()) return NoServiceManager(host, u"stop");
  const ServiceIdentity& id = host.identity();
  platform::ServiceHandle manager;
  uint32_t error = platform::OpenServiceManager(platform::ManagerAccess::kConnect, &manager);
  if (error != 0) {
    host.Say(host.Message(Format(u"OpenSCManager failed - error = %d", error)));
    return error;
  }
  // The verb acts on the stop target, as it always has: for the broker that is its log service.
  platform::ServiceHandle service;
  platform::ServiceStatus status{};
  error = platform::OpenNamedService(manager, id.stop_target, platform::ServiceAccess::kStopAndQuery, &service);
  if (error == 0) error = platform::StopNamedService(service, &status);
  if (error == platform::kErrorServiceNotActive) {
    host.Say(WString(id.display_name) + u" already stopped");
    return 0;
  }
  if (error != 0) {
    host.Say(host.Message(Format(u"ControlService(SERVICE_CONTROL_STOP) failure = %d", error)));
    return error;
  }
  const bool stopped = WaitWhile(service, platform::kServiceStopPending, -1) == platform::kServiceStopped;
  host.Say(WString(id.display_name) + (stopped ? u" stopped" : u" failed to stop"));
  return stopped ? 0 : kStopTimedOut;
}

uint32_t RemoveService(ServiceHost& host) {
  const ServiceIdentity& id = host.identity();
  uint32_t result = 0;
  if (!platform::HasServiceManager()) {
    NoServiceManager(host, u"disable");
  } else {
    platform::ServiceHandle manager;
    platform::ServiceHandle service;
    uint32_t error = platform::OpenServiceManager(platform::ManagerAccess::kAll, &manager);
    if (error != 0) {
      host.Say(host.Message(Format(u"OpenSCManager failed - error = %d", error)));
      result = error;
    } else if ((error = platform::OpenNamedService(manager, id.name, platform::ServiceAccess::kAll, &service)) != 0) {
      host.Say(host.Message(Format(u"OpenService failed - error = %d", error)));
      result = error;
    } else {
      // Marked for deletion first, then stopped: the manager removes it once it has stopped.
      error = platform::DeleteNamedService(service);
      if (error != 0) {
        host.Say(host.Message(Format(u"DeleteService failed - error = %d", error)));
        result = error;
      }
      platform::ServiceStatus status{};
      error = platform::StopNamedService(service, &status);
      if (error != 0) {
        host.Say(host.Message(Format(u"ControlService failed - error = %d", error)));
        result = error;
      } else if (WaitWhile(service, platform::kServiceStopPending, kRemoveStopPolls) != platform::kServiceStopped) {
        host.Say(host.Message(Format(u"%s failed to stop.", id.display_name)));
        result = kServiceDidNotStop;
      }
    }
  }
  if (id.remove_data != nullptr) id.remove_data(host);  // in every case
  return result;
}

uint32_t StartInstalledService(ServiceHost& host) {
  if (!platform::HasServiceManager()) return NoServiceManager(host, u"start");
  const ServiceIdentity& id = host.identity();
  platform::ServiceHandle manager;
  platform::ServiceHandle service;
  uint32_t error = platform::OpenServiceManager(platform::ManagerAccess::kAll, &manager);
  if (error != 0) {
    host.Say(host.Message(u"OpenSCManager failed."));
    return error;
  }
  // The dependency first. Windows' service manager would start it on its own; not every service
  // manager does (Wine's does not), and starting one that runs already does no harm.
  if (id.dependency != nullptr) {
    platform::ServiceHandle dependency;
    if (platform::OpenNamedService(manager, id.dependency, platform::ServiceAccess::kAll, &dependency) == 0 &&
        platform::StartNamedService(dependency) == 0) {
      WaitWhile(dependency, platform::kServiceStartPending, kStartPolls - 1);
    }
  }
  if ((error = platform::OpenNamedService(manager, id.name, platform::ServiceAccess::kAll, &service)) != 0) {
    host.Say(host.Message(u"OpenService failed."));
    return error;
  }
  // One that runs already (the service manager starts automatic services on its own) is where
  // this verb wants it.
  if ((error = platform::StartNamedService(service)) != 0 && error != platform::kErrorServiceAlreadyRunning) {
    host.Say(host.Message(u"StartService failed."));
    return error;
  }
  const uint32_t state = WaitWhile(service, platform::kServiceStartPending, kStartPolls - 1);
  if (state == platform::kServiceRunning) return 0;
  host.Say(host.Message(Format(u"%s failed to start.", id.display_name)));
  return kServiceDidNotStart;
}

}  // namespace orlenda
