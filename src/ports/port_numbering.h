// Names for new ports: the port-type prefix NAVPRT and a three-digit number.
//
// A number is free when its three digits ("%03d") occur inside none of the names already
// configured. That is a search for the digits in each whole name, not a comparison of numbers:
// a name that holds "002" anywhere (say "NAVPRT0020" or "COM002X") keeps 002 from being chosen,
// on purpose, so that no new name can be mistaken for part of an old one.
#pragma once

#include <cstdint>

#include "common/heap.h"
#include "common/wide_string.h"

namespace orlenda {

// The port-type prefix of printer ports.
constexpr char16_t kPortTypePrefix[] = u"NAVPRT";

// The lowest n from 1 to 999 whose digits occur in none of `names`; 0 when all are taken.
uint32_t FreePortNumber(const HeapVector<WString>& names);

// The store key of a new port, "/NAVPRT" and the free number's three digits; empty when no
// number is free.
WString NewPortKey(const HeapVector<WString>& names);

}  // namespace orlenda
