#include "settings/base64.h"

namespace orlenda {
namespace {

constexpr char16_t kAlphabet[] = u"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::size_t kLineLength = 64;
constexpr WStringView kLineBreak = u"\r\n";

// The 6-bit value of a character. Nothing is rejected: anything outside the alphabet, "=" among
// it, contributes zero bits, so damaged text still decodes to something of the right length.
uint32_t SextetOf(WChar c) {
  if (c >= u'A' && c <= u'Z') return c - u'A';
  if (c >= u'a' && c <= u'z') return c - u'a' + 26;
  if (c >= u'0' && c <= u'9') return c - u'0' + 52;
  if (c == u'+') return 62;
  if (c == u'/') return 63;
  return 0;
}

}  // namespace

// Line breaks: the text opens with CR LF and every 64th character is followed by CR LF. A final
// group with padding always ends its line; when that group is also the 64th character of the line
// the one CR LF serves both rules, so no empty line is written. An unpadded final group gets the
// CR LF only when it fills its line (48 bytes give exactly one full line, then CR LF).
WString EncodeBase64(const uint8_t* bytes, std::size_t count) {
  WString out;
  const std::size_t characters = (count + 2) / 3 * 4;
  out.reserve(count * 4 / 3 + 2 * (characters / kLineLength) + 4);
  out.append(kLineBreak);
  std::size_t on_line = 0;
  for (std::size_t i = 0; i < count; i += 3) {
    const std::size_t left = count - i;
    uint32_t group = static_cast<uint32_t>(bytes[i]) << 16;
    if (left > 1) group |= static_cast<uint32_t>(bytes[i + 1]) << 8;
    if (left > 2) group |= bytes[i + 2];
    out.push_back(kAlphabet[(group >> 18) & 0x3F]);
    out.push_back(kAlphabet[(group >> 12) & 0x3F]);
    out.push_back(left > 1 ? kAlphabet[(group >> 6) & 0x3F] : u'=');
    out.push_back(left > 2 ? kAlphabet[group & 0x3F] : u'=');
    on_line += 4;
    const bool padded = left < 3;
    if (on_line == kLineLength || padded) {
      out.append(kLineBreak);
      on_line = 0;
    }
  }
  return out;
}

// Groups are counted without CR and LF. A trailing group of fewer than four characters (only
// damaged text has one) is decoded like an unpadded one: n characters give n - 1 bytes.
// The size query counts the text as given, line breaks included, so it never falls short.
std::size_t DecodeBase64(WStringView text, uint8_t* buffer, std::size_t size) {
  if (size == 0) return text.size() / 4 * 3 + 3;
  std::size_t written = 0;
  uint32_t group = 0;
  std::size_t in_group = 0;
  std::size_t pads = 0;
  auto flush = [&](std::size_t bytes) {
    if (written + bytes > size) return false;
    if (bytes > 0) buffer[written++] = static_cast<uint8_t>(group >> 16);
    if (bytes > 1) buffer[written++] = static_cast<uint8_t>(group >> 8);
    if (bytes > 2) buffer[written++] = static_cast<uint8_t>(group);
    return true;
  };
  for (WChar c : text) {
    if (c == u'\r' || c == u'\n') continue;
    group = (group << 6) | SextetOf(c);
    if (c == u'=') ++pads;
    if (++in_group < 4) continue;
    if (!flush(pads >= 3 ? 0 : 3 - pads)) return written;
    group = 0;
    in_group = 0;
    pads = 0;
  }
  if (in_group >= 2) {
    group <<= 6 * (4 - in_group);
    const std::size_t bytes = in_group - 1;
    flush(bytes > pads ? bytes - pads : 0);
  }
  return written;
}

}  // namespace orlenda
