// UTF-16 names of the shared code as UTF-8 file names, and back. Unpaired surrogates and malformed
// UTF-8 become U+FFFD rather than failing: a name is still a name.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orlenda::platform {

constexpr std::size_t kConversionFailed = static_cast<std::size_t>(-1);

// Writes the terminated UTF-8 form of `text` to `out`. Returns its length in bytes, or
// kConversionFailed when it does not fit in `capacity` bytes with its terminator.
inline std::size_t Utf16ToUtf8(const char16_t* text, char* out, std::size_t capacity) {
  std::size_t used = 0;
  auto put = [&](uint32_t byte) {
    if (used + 1 >= capacity) return false;
    out[used++] = static_cast<char>(byte);
    return true;
  };
  for (std::size_t i = 0; text[i] != 0; ++i) {
    uint32_t cp = text[i];
    if (cp >= 0xD800 && cp <= 0xDBFF && text[i + 1] >= 0xDC00 && text[i + 1] <= 0xDFFF) {
      cp = 0x10000 + ((cp - 0xD800) << 10) + (text[i + 1] - 0xDC00);
      ++i;
    } else if (cp >= 0xD800 && cp <= 0xDFFF) {
      cp = 0xFFFD;
    }
    bool ok;
    if (cp < 0x80) {
      ok = put(cp);
    } else if (cp < 0x800) {
      ok = put(0xC0 | (cp >> 6)) && put(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
      ok = put(0xE0 | (cp >> 12)) && put(0x80 | ((cp >> 6) & 0x3F)) && put(0x80 | (cp & 0x3F));
    } else {
      ok = put(0xF0 | (cp >> 18)) && put(0x80 | ((cp >> 12) & 0x3F)) &&
           put(0x80 | ((cp >> 6) & 0x3F)) && put(0x80 | (cp & 0x3F));
    }
    if (!ok) return kConversionFailed;
  }
  if (capacity == 0) return kConversionFailed;
  out[used] = 0;
  return used;
}

// Writes the terminated UTF-16 form of `text` to `out`. Returns its length in units, or
// kConversionFailed when it does not fit in `capacity` units with its terminator.
inline std::size_t Utf8ToUtf16(const char* text, char16_t* out, std::size_t capacity) {
  const auto* s = reinterpret_cast<const unsigned char*>(text);
  std::size_t used = 0;
  while (*s != 0) {
    uint32_t cp = 0xFFFD;
    int extra = 0;
    uint32_t lead = *s++;
    if (lead < 0x80) {
      cp = lead;
    } else if ((lead & 0xE0) == 0xC0) {
      cp = lead & 0x1F, extra = 1;
    } else if ((lead & 0xF0) == 0xE0) {
      cp = lead & 0x0F, extra = 2;
    } else if ((lead & 0xF8) == 0xF0) {
      cp = lead & 0x07, extra = 3;
    }
    const uint32_t min[] = {0, 0x80, 0x800, 0x10000};
    int i = 0;
    for (; i < extra && (*s & 0xC0) == 0x80; ++i) cp = (cp << 6) | (*s++ & 0x3F);
    if (i < extra || cp < min[extra] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
      cp = 0xFFFD;  // cut short, overlong, out of range or an encoded surrogate
    }
    std::size_t units = cp >= 0x10000 ? 2 : 1;
    if (used + units + 1 > capacity) return kConversionFailed;
    if (units == 2) {
      out[used++] = static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10));
      out[used++] = static_cast<char16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF));
    } else {
      out[used++] = static_cast<char16_t>(cp);
    }
  }
  if (capacity == 0) return kConversionFailed;
  out[used] = 0;
  return used;
}

}  // namespace orlenda::platform
