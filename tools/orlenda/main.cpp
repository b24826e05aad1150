// orlenda: the port broker service.
//
//   orlenda            run as the service (under the service manager; on POSIX as a daemon, with
//                      SIGTERM or SIGINT as the stop control)
//   orlenda -debug     run in the console; Ctrl+C stops it
//   orlenda -install   register the service (and put the default configuration in place)
//   orlenda -start     start the registered service and wait until it runs
//   orlenda -stop      stop the service's log service, "OrlendaLog"
//   orlenda -remove    remove the service and delete its data files
// A verb may also begin with "/", and case does not matter.
#include "service/service_control.h"
#include "service/service_data.h"
#include "service/service_host.h"
#include "service/service_start.h"

namespace {

const orlenda::ServiceIdentity kBroker = {
    u"Orlenda",
    u"Orlenda Service",
    u"Orlenda",
    u"OrlendaLog",
    u"OrlendaLog",
    u"orlenda",
    &orlenda::WriteDefaultServiceData,
    &orlenda::RemoveServiceData,
    true,
};

}  // namespace

int main(int argc, char** argv) {
  orlenda::ServiceHost host(kBroker, &orlenda::ServiceStart, orlenda::platform::TheServiceSystem());
  return host.Main(argc, argv);
}
