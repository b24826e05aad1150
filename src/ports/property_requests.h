// The typed property requests every port serves itself: strings, numbers and data kept per port
// in the properties store under "<open name>/<property name>".
#pragma once

#include <cstdint>

#include "common/blob.h"
#include "common/wide_string.h"

namespace orlenda {

// Whether `code` is one of the six get/set property codes.
bool IsPropertyRequest(uint32_t code);

// Serves a property request of the port opened as `port_name`. Gets fill `output`; a set stores the
// value and sets `*changed`, after which the caller tells the port's stack (SK_CONFIG_APPLY).
uint32_t ServePropertyRequest(WStringView port_name, uint32_t code, const BlobRef& input, BlobRef* output,
                              bool* changed);

}  // namespace orlenda
