#include "common/wide_string.h"

#include <cstddef>
#include <cstdint>

#if defined(__SSE2__) || defined(_M_X64) || defined(_M_AMD64)
#include <emmintrin.h>
#define ORLENDA_SSE2 1
#else
#define ORLENDA_SSE2 0
#endif

namespace orlenda {

namespace {

constexpr char16_t kReplacement = 0xFFFD;

// ASCII is widened a run of 16 bytes at a time; units are gathered in blocks of kBlockUnits.
// A run's 16 units are written whole even when fewer of its bytes are ASCII.
constexpr std::size_t kAsciiRun = 16;
constexpr std::size_t kBlockUnits = 2048;

#if ORLENDA_SSE2
// Widens the 16 bytes at `in` into `out` and returns how many of them, from the first, are ASCII
// (16 when all are). Units behind those are written too, and are overwritten by what follows.
inline std::size_t WidenAsciiRun(const uint8_t* in, char16_t* out) {
  const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
  const __m128i zero = _mm_setzero_si128();
  _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_unpacklo_epi8(bytes, zero));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 8), _mm_unpackhi_epi8(bytes, zero));
  const unsigned high_bits = static_cast<unsigned>(_mm_movemask_epi8(bytes));
  if (high_bits == 0) return kAsciiRun;
  std::size_t ascii = 0;
  while ((high_bits >> ascii & 1u) == 0) ++ascii;
  return ascii;
}
#else
inline std::size_t WidenAsciiRun(const uint8_t* in, char16_t* out) {
  std::size_t ascii = 0;
  while (ascii < kAsciiRun && in[ascii] < 0x80) {
    out[ascii] = in[ascii];
    ++ascii;
  }
  return ascii;
}
#endif

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
  // UTF-16 never needs more code units than the UTF-8 text has bytes. The units are made in a
  // small block on the stack and appended block by block, so the result is written once, without
  // first being filled with zeros.
  out.reserve(utf8.size());
  char16_t block[kBlockUnits];
  std::size_t used = 0;
  const auto* bytes = reinterpret_cast<const uint8_t*>(utf8.data());
  const std::size_t size = utf8.size();
  std::size_t pos = 0;
  while (pos < size) {
    // One round adds at most a run less one ASCII unit and then a surrogate pair.
    if (used > kBlockUnits - kAsciiRun - 2) {
      out.append(block, used);
      used = 0;
    }
    if (size - pos >= kAsciiRun) {
      // Most text is ASCII: a whole run is widened at once, and the ASCII bytes in front of the
      // first other byte are kept.
      const std::size_t ascii = WidenAsciiRun(bytes + pos, block + used);
      pos += ascii;
      used += ascii;
      if (ascii == kAsciiRun) continue;
    } else if (bytes[pos] < 0x80) {
      block[used++] = bytes[pos++];
      continue;
    }
    const LeadInfo lead = ClassifyLead(bytes[pos]);
    if (lead.continuations < 0) {
      block[used++] = kReplacement;
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
    if (!complete) {
      block[used++] = kReplacement;
    } else if (cp < 0x10000) {
      block[used++] = static_cast<char16_t>(cp);
    } else {
      cp -= 0x10000;
      block[used++] = static_cast<char16_t>(0xD800 + (cp >> 10));
      block[used++] = static_cast<char16_t>(0xDC00 + (cp & 0x3FF));
    }
    pos += taken;
  }
  out.append(block, used);
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
