#include "common/wide_string.h"

#include <cstdint>

namespace orlenda {

namespace {

constexpr char16_t kReplacement = 0xFFFD;

// What a lead byte promises: how many continuation bytes follow, and the range the first of them
// must fall in. The narrowed first ranges are what rule out overlong forms (E0, F0), surrogates (ED)
// and values above U+10FFFF (F4); every later continuation byte is plain 80..BF.
struct LeadInfo {
  int continuations;  // 0 for ASCII, -1 for a byte that cannot start a sequence
  uint8_t first_low;
  uint8_t first_high;
  uint32_t initial_bits;
};

LeadInfo ClassifyLead(uint8_t b) {
  if (b < 0x80) return {0, 0, 0, b};
  if (b < 0xC2) return {-1, 0, 0, 0};  // stray continuation byte, or the overlong C0 / C1
  if (b < 0xE0) return {1, 0x80, 0xBF, b & 0x1Fu};
  if (b == 0xE0) return {2, 0xA0, 0xBF, 0};
  if (b == 0xED) return {2, 0x80, 0x9F, 0xD};
  if (b < 0xF0) return {2, 0x80, 0xBF, b & 0x0Fu};
  if (b == 0xF0) return {3, 0x90, 0xBF, 0};
  if (b < 0xF4) return {3, 0x80, 0xBF, b & 0x07u};
  if (b == 0xF4) return {3, 0x80, 0x8F, 4};
  return {-1, 0, 0, 0};  // F5..FF never appear in UTF-8
}

void AppendCodePoint(WString& out, uint32_t cp) {
  if (cp < 0x10000) {
    out.push_back(static_cast<char16_t>(cp));
  } else {
    cp -= 0x10000;
    out.push_back(static_cast<char16_t>(0xD800 + (cp >> 10)));
    out.push_back(static_cast<char16_t>(0xDC00 + (cp & 0x3FF)));
  }
}

void AppendUtf8(HeapString& out, uint32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

}  // namespace

WString Utf8ToWide(std::string_view utf8) {
  WString out;
  // UTF-16 never needs more code units than the UTF-8 text has bytes.
  out.reserve(utf8.size());
  const auto* bytes = reinterpret_cast<const uint8_t*>(utf8.data());
  const std::size_t size = utf8.size();
  std::size_t pos = 0;
  while (pos < size) {
    const LeadInfo lead = ClassifyLead(bytes[pos]);
    if (lead.continuations < 0) {
      out.push_back(kReplacement);
      ++pos;
      continue;
    }
    uint32_t cp = lead.initial_bits;
    std::size_t taken = 1;
    bool complete = true;
    for (int i = 0; i < lead.continuations; ++i) {
      const std::size_t at = pos + taken;
      const uint8_t low = i == 0 ? lead.first_low : 0x80;
      const uint8_t high = i == 0 ? lead.first_high : 0xBF;
      if (at >= size || bytes[at] < low || bytes[at] > high) {
        complete = false;
        break;
      }
      cp = (cp << 6) | (bytes[at] & 0x3Fu);
      ++taken;
    }
    // A sequence broken off early is one maximal invalid subpart: the bytes taken so far become one
    // U+FFFD, and the byte that broke it is looked at afresh as the start of what follows.
    if (complete) {
      AppendCodePoint(out, cp);
    } else {
      out.push_back(kReplacement);
    }
    pos += taken;
  }
  return out;
}

HeapString WideToUtf8(WStringView wide) {
  HeapString out;
  out.reserve(wide.size() * 3);
  const std::size_t size = wide.size();
  for (std::size_t i = 0; i < size; ++i) {
    uint32_t unit = wide[i];
    if (unit >= 0xD800 && unit <= 0xDBFF && i + 1 < size && wide[i + 1] >= 0xDC00 &&
        wide[i + 1] <= 0xDFFF) {
      AppendUtf8(out, 0x10000 + ((unit - 0xD800) << 10) + (wide[i + 1] - 0xDC00u));
      ++i;
    } else if (unit >= 0xD800 && unit <= 0xDFFF) {
      AppendUtf8(out, kReplacement);  // half a pair has no UTF-8 form
    } else {
      AppendUtf8(out, unit);
    }
  }
  return out;
}

}  // namespace orlenda
