// The broker's data files: "Orlenda.configuration" and "Orlenda.properties" in the folder
// <common application data>/Morvane/Orlenda.
#pragma once

#include <cstdint>

#include "common/wide_string.h"

namespace orlenda {

class ServiceHost;

// The folder; false (with the message at level 0) when the common application-data folder is
// unknown, `*folder` then holding what could be made of the path.
bool ServiceDataFolder(ServiceHost& host, WString* folder);

// Deletes the two files, then the folders Orlenda and Morvane when they are empty. Failures are
// ignored. Returns 0.
uint32_t RemoveServiceData(ServiceHost& host);

// The data folder is made (when missing) and given its permissions (platform::RestrictFolder: only
// the system and the administrators may change it), which also takes over a folder some user made
// first. Then the folder and the two files must be changeable by those alone: the service runs as
// the system and loads the modules its configuration names, so a configuration another user could
// write (or plant before the service made the folder) is refused. True when all is safe; else
// false, with the message in `*refusal`.
bool SecureServiceData(ServiceHost& host, WString* refusal);

// Writes the default configuration and properties where no file of the name is yet: the
// loopback component, a stack "LOOP" that serves with it, and the port "LOOP/1". An existing file
// is never touched. 0, or the error of a write.
uint32_t WriteDefaultServiceData(ServiceHost& host);

}  // namespace orlenda
