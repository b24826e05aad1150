#include "text.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

#include "common/wide_string.h"
#include "skein/client.h"

namespace orlendactl {
namespace {

struct NamedCode {
  const char* name;
  uint32_t value;
};

#define ORLENDACTL_NAMED(name, value) {#name, value},
const NamedCode kCodes[] = {
    SKEIN_PORT_CONTROLS(ORLENDACTL_NAMED) SKEIN_CONFIG_CONTROLS(ORLENDACTL_NAMED)
        SKEIN_PROPERTY_CONTROLS(ORLENDACTL_NAMED) SKEIN_EVENTS(ORLENDACTL_NAMED)};
#undef ORLENDACTL_NAMED

int HexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

bool ParseNumber(const std::string& text, uint32_t* value) {
  if (text.empty() || text[0] == '-' || text[0] == '+' || std::isspace(static_cast<unsigned char>(text[0]))) {
    return false;
  }
  char* end = nullptr;
  const unsigned long long parsed = std::strtoull(text.c_str(), &end, 0);
  if (*end != '\0' || parsed > 0xFFFFFFFFull) return false;
  *value = static_cast<uint32_t>(parsed);
  return true;
}

bool ParseCode(const std::string& text, uint32_t* value) {
  for (const NamedCode& code : kCodes) {
    if (text == code.name) {
      *value = code.value;
      return true;
    }
  }
  return ParseNumber(text, value);
}

bool ParseDuration(const std::string& text, uint32_t* ms) {
  char* end = nullptr;
  const double number = std::strtod(text.c_str(), &end);
  if (end == text.c_str() || number < 0) return false;
  const std::string unit = end;
  double factor = 0;
  if (unit.empty() || unit == "s") factor = 1000;
  else if (unit == "ms") factor = 1;
  else if (unit == "m" || unit == "min") factor = 60000;
  else return false;
  const double value = number * factor;
  if (value > 4e9) return false;
  *ms = static_cast<uint32_t>(value);
  return true;
}

bool ParseHex(const std::string& text, std::string* bytes) {
  bytes->clear();
  int high = -1;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == ' ' || c == ':' || c == ',' || c == '\t') continue;
    if (c == '0' && i + 1 < text.size() && (text[i + 1] == 'x' || text[i + 1] == 'X') && high < 0) {
      ++i;
      continue;
    }
    const int digit = HexDigit(c);
    if (digit < 0) return false;
    if (high < 0) {
      high = digit;
    } else {
      bytes->push_back(static_cast<char>(high << 4 | digit));
      high = -1;
    }
  }
  return high < 0;
}

std::string Hex32(uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof(text), "0x%08x", value);
  return text;
}

std::string ResultText(uint32_t result) {
  const char* name = SkResultName(result);
  return name != nullptr ? std::string(name) + " (" + Hex32(result) + ")" : Hex32(result);
}

std::string CodeText(uint32_t code) {
  for (const NamedCode& named : kCodes) {
    if (named.value == code) return std::string(named.name) + " (" + Hex32(code) + ")";
  }
  return Hex32(code);
}

std::vector<std::string> HexDump(const std::string& bytes) {
  std::vector<std::string> lines;
  for (std::size_t at = 0; at < bytes.size(); at += 16) {
    char line[96];
    int used = std::snprintf(line, sizeof(line), "  %04zx ", at);
    std::string printable;
    for (std::size_t i = at; i < at + 16; ++i) {
      if (i < bytes.size()) {
        const unsigned char c = static_cast<unsigned char>(bytes[i]);
        used += std::snprintf(line + used, sizeof(line) - used, " %02x", c);
        printable.push_back(c >= 0x20 && c < 0x7F ? static_cast<char>(c) : '.');
      } else {
        used += std::snprintf(line + used, sizeof(line) - used, "   ");
      }
    }
    lines.push_back(std::string(line) + "  |" + printable + "|");
  }
  return lines;
}

std::string Utf16ToUtf8(const std::string& bytes) {
  std::u16string units;
  for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
    const char16_t unit = static_cast<char16_t>(static_cast<uint8_t>(bytes[i]) | static_cast<uint8_t>(bytes[i + 1]) << 8);
    if (unit == 0) break;
    units.push_back(unit);
  }
  const auto utf8 = orlenda::WideToUtf8(units);
  return std::string(utf8.begin(), utf8.end());
}

std::string Utf8ToUtf16(const std::string& text, bool terminate) {
  const orlenda::WString wide = orlenda::Utf8ToWide(text);
  std::string bytes;
  for (char16_t unit : wide) {
    bytes.push_back(static_cast<char>(unit & 0xFF));
    bytes.push_back(static_cast<char>(unit >> 8));
  }
  if (terminate) bytes.append(2, '\0');
  return bytes;
}

std::vector<std::string> Utf16List(const std::string& bytes) {
  std::vector<std::string> names;
  std::size_t start = 0;
  for (std::size_t i = 0; i + 1 < bytes.size(); i += 2) {
    if (bytes[i] != 0 || bytes[i + 1] != 0) continue;
    if (i == start) break;  // the empty name closes the list
    names.push_back(Utf16ToUtf8(bytes.substr(start, i - start)));
    start = i + 2;
  }
  return names;
}

}  // namespace orlendactl
