// Scanning the text of XmlDocument (private): the fast search for the next of a few characters,
// and the grammar of a start tag, which the parser (to find where a tag ends) and the attribute
// walker (to read and edit attributes) share. One definition of how quotes pair is what keeps an
// edit from reading a tag differently from the parse that follows it.
#pragma once

#include "common/wide_string.h"

#if defined(__SSE2__) || defined(_M_X64) || defined(_M_AMD64)
#include <emmintrin.h>
#define ORLENDA_SSE2 1
#if defined(_MSC_VER)
#include <intrin.h>
#endif
#else
#define ORLENDA_SSE2 0
#endif

namespace orlenda {

// Most of the text is looked at only to find the next character of a few: "<" between tags, ">"
// or a quote in a start tag, the closing quote of a value. Eight characters are compared at once.
#if ORLENDA_SSE2
inline unsigned LowestBit(unsigned mask) {
#if defined(_MSC_VER)
  unsigned long index;
  _BitScanForward(&index, mask);
  return static_cast<unsigned>(index);
#else
  return static_cast<unsigned>(__builtin_ctz(mask));
#endif
}

inline __m128i Load8(const WChar* p) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
}

// The first `a` at or after `p`, or `end`.
inline const WChar* FindChar(const WChar* p, const WChar* end, WChar a) {
  const __m128i va = _mm_set1_epi16(static_cast<short>(a));
  for (; end - p >= 8; p += 8) {
    const unsigned mask =
        static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi16(Load8(p), va)));
    if (mask != 0) return p + LowestBit(mask) / 2;
  }
  while (p < end && *p != a) ++p;
  return p;
}

// The first of `a`, `b` or `c` at or after `p`, or `end`.
inline const WChar* FindChar(const WChar* p, const WChar* end, WChar a, WChar b, WChar c) {
  const __m128i va = _mm_set1_epi16(static_cast<short>(a));
  const __m128i vb = _mm_set1_epi16(static_cast<short>(b));
  const __m128i vc = _mm_set1_epi16(static_cast<short>(c));
  for (; end - p >= 8; p += 8) {
    const __m128i v = Load8(p);
    const __m128i hit = _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi16(v, va), _mm_cmpeq_epi16(v, vb)),
                                     _mm_cmpeq_epi16(v, vc));
    const unsigned mask = static_cast<unsigned>(_mm_movemask_epi8(hit));
    if (mask != 0) return p + LowestBit(mask) / 2;
  }
  while (p < end && *p != a && *p != b && *p != c) ++p;
  return p;
}
#else
inline const WChar* FindChar(const WChar* p, const WChar* end, WChar a) {
  while (p < end && *p != a) ++p;
  return p;
}

inline const WChar* FindChar(const WChar* p, const WChar* end, WChar a, WChar b, WChar c) {
  while (p < end && *p != a && *p != b && *p != c) ++p;
  return p;
}
#endif


inline bool IsXmlQuote(WChar c) { return c == u'"' || c == u'\''; }

// Inside a start tag, behind its name: a quote opens a quoted stretch wherever it stands (as an
// attribute value or not), and the next same quote closes it; outside such stretches the first
// ">" ends the tag. Names and unquoted values therefore end at a quote.

// The quote that closes the quoted stretch `open` (a quote) opens, or `end` when there is none.
inline const WChar* FindXmlQuoteClose(const WChar* open, const WChar* end) {
  return FindChar(open + 1, end, *open);
}

// The ">" that ends the start tag whose name ends at `p`, or `end` when the tag does not end there.
inline const WChar* FindXmlTagEnd(const WChar* p, const WChar* end) {
  for (;;) {
    p = FindChar(p, end, u'>', u'"', u'\'');
    if (p == end || *p == u'>') return p;
    p = FindXmlQuoteClose(p, end);
    if (p == end) return end;
    ++p;
  }
}

}  // namespace orlenda
