// Result codes: unsigned 32-bit, 0 is success, failures have the top bit set. The list below is the
// only place that pairs a code with its name; traces print names from the same table.
#pragma once

#include <cstdint>

namespace orlenda {

#define ORLENDA_RESULT_CODES(X)           \
  X(SKR_SUCCESS, 0x00000000u)             \
  X(SKR_INVALID_HANDLE, 0x80000001u)      \
  X(SKR_FAILED, 0x80000002u)              \
  X(SKR_INVALID_SIZE, 0x80000003u)        \
  X(SKR_INVALID_PARAMETER, 0x80000004u)   \
  X(SKR_SYSTEM_ERROR, 0x80000005u)        \
  X(SKR_OUT_OF_MEMORY, 0x80000006u)       \
  X(SKR_TRUNCATED, 0x80000007u)           \
  X(SKR_NOT_LOCKED, 0x80010000u)          \
  X(SKR_SUSPENDED, 0x80010001u)           \
  X(SKR_LOCK_PENDING, 0x80010003u)        \
  X(SKR_LOCKED_BY_OTHER, 0x80010004u)

#define ORLENDA_DECLARE_RESULT(name, value) constexpr uint32_t name = value;
ORLENDA_RESULT_CODES(ORLENDA_DECLARE_RESULT)
#undef ORLENDA_DECLARE_RESULT

inline bool Succeeded(uint32_t result) { return (result & 0x80000000u) == 0; }

// The name of a known result code (u"SKR_NOT_LOCKED"), or nullptr for any other value.
const char16_t* ResultName(uint32_t result);

}  // namespace orlenda
