#include "connections/address_filter.h"

namespace orlenda {
namespace {

bool IsSeparator(char16_t c) { return c == u',' || c == u';' || c == u' ' || c == u'\t'; }

// A decimal number of at most `max`, the whole of `text`.
bool ParseNumber(WStringView text, uint32_t max, uint32_t* value) {
  if (text.empty() || text.size() > 10) return false;
  uint64_t result = 0;
  for (char16_t c : text) {
    if (c < u'0' || c > u'9') return false;
    result = result * 10 + static_cast<uint64_t>(c - u'0');
  }
  if (result > max) return false;
  *value = static_cast<uint32_t>(result);
  return true;
}

}  // namespace

bool ParseIpv4(WStringView text, uint32_t* address) {
  uint32_t result = 0;
  for (int part = 0; part < 4; ++part) {
    const std::size_t dot = part < 3 ? text.find(u'.') : text.size();
    if (dot == WStringView::npos) return false;
    uint32_t byte = 0;
    if (!ParseNumber(text.substr(0, dot), 255, &byte)) return false;
    result = result << 8 | byte;
    text.remove_prefix(part < 3 ? dot + 1 : dot);
  }
  *address = result;
  return true;
}

WString FormatIpv4(uint32_t address) {
  WString text;
  for (int shift = 24; shift >= 0; shift -= 8) {
    const uint32_t byte = address >> shift & 0xFFu;
    if (byte >= 100) text.push_back(static_cast<char16_t>(u'0' + byte / 100));
    if (byte >= 10) text.push_back(static_cast<char16_t>(u'0' + byte / 10 % 10));
    text.push_back(static_cast<char16_t>(u'0' + byte % 10));
    if (shift != 0) text.push_back(u'.');
  }
  return text;
}

AddressFilter AddressFilter::Parse(WStringView list, HeapVector<WString>* rejected) {
  AddressFilter filter;
  bool any_entry = false;
  while (!list.empty()) {
    std::size_t start = 0;
    while (start < list.size() && IsSeparator(list[start])) ++start;
    std::size_t end = start;
    while (end < list.size() && !IsSeparator(list[end])) ++end;
    const WStringView entry = list.substr(start, end - start);
    list.remove_prefix(end);
    if (entry.empty()) continue;
    if (entry == u"*") return AddressFilter();  // everyone
    any_entry = true;
    const std::size_t slash = entry.find(u'/');
    uint32_t address = 0;
    uint32_t bits = 32;
    if (!ParseIpv4(entry.substr(0, slash), &address) ||
        (slash != WStringView::npos && !ParseNumber(entry.substr(slash + 1), 32, &bits))) {
      if (rejected != nullptr) rejected->emplace_back(entry.data(), entry.size());
      continue;
    }
    const uint32_t mask = bits == 0 ? 0 : ~0u << (32 - bits);
    filter.ranges_.push_back(Range{address & mask, mask});
  }
  filter.everyone_ = !any_entry;
  return filter;
}

bool AddressFilter::Allows(uint32_t address) const {
  if (everyone_) return true;
  for (const Range& range : ranges_) {
    if ((address & range.mask) == range.network) return true;
  }
  return false;
}

}  // namespace orlenda
