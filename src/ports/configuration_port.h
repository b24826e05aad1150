// The built-in configuration port: a port name without "/" opens it, and its requests add, delete,
// change and list the configured ports and return settings documents. One configuration object
// per open, kept by port number.
#pragma once

#include <cstdint>

#include "common/wide_string.h"
#include "skein/component.h"

namespace orlenda {

// Opens the configuration port as port `port` under `name`: creates its configuration object and,
// on success, fills entries 0-3 of `table` with the configuration port's own Open, Close, Write
// and Ioctl. The port stacks call this for a stack name that is empty.
uint32_t OpenConfigurationPort(uint32_t port, WStringView name, SkComponentTable* table);

}  // namespace orlenda
