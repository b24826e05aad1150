#include "ports/port_numbering.h"

namespace orlenda {
namespace {

constexpr uint32_t kNoFreeNumber = 1000;

// "%03d" of a number below 1000.
WString ThreeDigits(uint32_t n) {
  WString digits(3, u'0');
  digits[0] = static_cast<char16_t>(u'0' + n / 100);
  digits[1] = static_cast<char16_t>(u'0' + n / 10 % 10);
  digits[2] = static_cast<char16_t>(u'0' + n % 10);
  return digits;
}

bool OccursInAny(const HeapVector<WString>& names, const WString& digits) {
  for (const WString& name : names) {
    if (name.find(digits) != WString::npos) return true;
  }
  return false;
}

}  // namespace

uint32_t FreePortNumber(const HeapVector<WString>& names) {
  uint32_t n = 1;
  while (n < kNoFreeNumber && OccursInAny(names, ThreeDigits(n))) ++n;
  return n == kNoFreeNumber ? 0 : n;
}

WString NewPortKey(const HeapVector<WString>& names) {
  const uint32_t n = FreePortNumber(names);
  if (n == 0) return WString();
  WString key(u"/");
  key += kPortTypePrefix;
  key += ThreeDigits(n);
  return key;
}

}  // namespace orlenda
