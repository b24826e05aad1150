// What orlendactl reads from its command line (numbers, durations, hex, codes by name) and how it
// shows what comes back (result names, hex dumps, the service's UTF-16 texts as UTF-8).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace orlendactl {

// A number in decimal or 0x-hex; false when it is not one or does not fit 32 bits.
bool ParseNumber(const std::string& text, uint32_t* value);
// A control or event code: a number, or a name of protocol.h ("SK_PORT_LOCK", "SK_EVENT_LOCK").
bool ParseCode(const std::string& text, uint32_t* value);
// "500ms", "2s", "1.5s", "1m"; a bare number is seconds. In milliseconds.
bool ParseDuration(const std::string& text, uint32_t* ms);
// Hex bytes, with or without blanks, colons or a leading 0x ("68 65 6c", "68656c", "0x6865").
bool ParseHex(const std::string& text, std::string* bytes);

// "SKR_NOT_LOCKED (0x80010000)", or the number alone for a code without a name.
std::string ResultText(uint32_t result);
// "SK_EVENT_LOCK (0x00010001)", or the number alone.
std::string CodeText(uint32_t code);
// 0x-prefixed, eight digits.
std::string Hex32(uint32_t value);

// Lines of 16 bytes: offset, hex, and the printable characters ("." for the others).
std::vector<std::string> HexDump(const std::string& bytes);
// UTF-16LE bytes as UTF-8 text, up to the first NUL unit.
std::string Utf16ToUtf8(const std::string& bytes);
// UTF-8 text as UTF-16LE bytes, with a NUL unit at the end when `terminate`.
std::string Utf8ToUtf16(const std::string& text, bool terminate);
// A NUL-separated list of UTF-16 names, closed by an empty one, as UTF-8 names.
std::vector<std::string> Utf16List(const std::string& bytes);

}  // namespace orlendactl
