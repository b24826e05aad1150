// Which TCP clients may connect: the setting TCP_ALLOWED_CLIENTS, a list of IPv4 addresses and
// CIDR ranges ("192.168.1.20, 10.0.0.0/24"), separated by commas, semicolons or blanks. An empty
// list, or "*", lets every client in (as the service always did). An entry that cannot be read is
// reported and left out; a list whose entries all fail lets nobody in, since a typo must not open
// the port to the whole network.
#pragma once

#include <cstdint>

#include "common/heap.h"
#include "common/wide_string.h"

namespace orlenda {

class AddressFilter {
 public:
  // Every client.
  AddressFilter() = default;
  // The filter of `list`; the entries that could not be read go to `*rejected` (when not null).
  static AddressFilter Parse(WStringView list, HeapVector<WString>* rejected);

  bool Allows(uint32_t address) const;  // host byte order
  bool allows_everyone() const { return everyone_; }

 private:
  struct Range {
    uint32_t network;
    uint32_t mask;
  };
  bool everyone_ = true;
  HeapVector<Range> ranges_;
};

// An IPv4 address in dotted form (host byte order); false when `text` is not one.
bool ParseIpv4(WStringView text, uint32_t* address);
// The dotted form of an address (host byte order).
WString FormatIpv4(uint32_t address);

}  // namespace orlenda
