#include "common/result_codes.h"

#include "skein/devices.h"

namespace orlenda {

const char16_t* ResultName(uint32_t result) {
  // Each name is its identifier turned into a wide literal; two codes sharing a value would be a
  // duplicate case label, so the list cannot drift into ambiguity unnoticed.
#define ORLENDA_RESULT_NAME(name, value) \
  case name:                             \
    return u"" #name;
  switch (result) {
    SKEIN_RESULT_CODES(ORLENDA_RESULT_NAME)
    SKEIN_DEVICE_RESULT_CODES(ORLENDA_RESULT_NAME)
    default:
      return nullptr;
  }
#undef ORLENDA_RESULT_NAME
}

}  // namespace orlenda
