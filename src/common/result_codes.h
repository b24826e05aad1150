// Result codes: unsigned 32-bit, 0 is success, failures have the top bit set. One list pairs each
// code with its name; traces print names from the same table.
#pragma once

#include <cstdint>

#include "skein/protocol.h"

namespace orlenda {

// The codes themselves, with their names, are the public lists in skein/protocol.h and, for the
// device modules, skein/devices.h.

inline bool Succeeded(uint32_t result) { return (result & 0x80000000u) == 0; }

// The name of a known result code (u"SKR_NOT_LOCKED"), or nullptr for any other value.
const char16_t* ResultName(uint32_t result);

}  // namespace orlenda
