#include "device_text.h"

#include "device_sys.h"

void DevTextClear(DevText* text) { text->length = 0; }

void DevTextAscii(DevText* text, const char* ascii) {
  for (; *ascii != 0 && text->length < DEV_TEXT_UNITS; ++ascii) {
    text->units[text->length++] = (uint16_t)(unsigned char)*ascii;
  }
}

void DevTextUnits(DevText* text, const uint16_t* units, uint32_t count) {
  uint32_t i;
  for (i = 0; i < count && text->length < DEV_TEXT_UNITS; ++i) text->units[text->length++] = units[i];
}

void DevTextAppend(DevText* text, const DevText* other) { DevTextUnits(text, other->units, other->length); }

void DevTextNumber(DevText* text, uint32_t value) {
  char digits[11];
  int n = 0;
  do {
    digits[n++] = (char)('0' + value % 10);
    value /= 10;
  } while (value != 0);
  while (n > 0 && text->length < DEV_TEXT_UNITS) text->units[text->length++] = (uint16_t)digits[--n];
}

static uint16_t Lower(uint16_t unit) { return unit >= 'A' && unit <= 'Z' ? (uint16_t)(unit + 32) : unit; }

int DevTextIsAscii(const DevText* text, const char* ascii) {
  uint32_t i;
  for (i = 0; i < text->length; ++i) {
    if (ascii[i] == 0 || Lower(text->units[i]) != Lower((uint16_t)(unsigned char)ascii[i])) return 0;
  }
  return ascii[i] == 0;
}

int DevTextToNumber(const DevText* text, uint32_t* value) {
  uint32_t i = 0, end = text->length;
  uint64_t number = 0;
  while (i < end && text->units[i] == ' ') ++i;
  while (end > i && text->units[end - 1] == ' ') --end;
  if (i == end) return 0;
  for (; i < end; ++i) {
    if (text->units[i] < '0' || text->units[i] > '9') return 0;
    number = number * 10 + (text->units[i] - '0');
    if (number > 0xFFFFFFFFu) return 0;
  }
  *value = (uint32_t)number;
  return 1;
}

int DevTextToUtf8(const DevText* text, char* out, size_t capacity) {
  size_t n = 0;
  uint32_t i;
  for (i = 0; i < text->length; ++i) {
    uint32_t c = text->units[i];
    unsigned char bytes[4];
    int count, k;
    if (c >= 0xD800 && c < 0xDC00 && i + 1 < text->length && text->units[i + 1] >= 0xDC00 &&
        text->units[i + 1] < 0xE000) {
      c = 0x10000 + ((c - 0xD800) << 10) + (text->units[++i] - 0xDC00);
    }
    if (c < 0x80) {
      bytes[0] = (unsigned char)c;
      count = 1;
    } else if (c < 0x800) {
      bytes[0] = (unsigned char)(0xC0 | (c >> 6));
      bytes[1] = (unsigned char)(0x80 | (c & 0x3F));
      count = 2;
    } else if (c < 0x10000) {
      bytes[0] = (unsigned char)(0xE0 | (c >> 12));
      bytes[1] = (unsigned char)(0x80 | ((c >> 6) & 0x3F));
      bytes[2] = (unsigned char)(0x80 | (c & 0x3F));
      count = 3;
    } else {
      bytes[0] = (unsigned char)(0xF0 | (c >> 18));
      bytes[1] = (unsigned char)(0x80 | ((c >> 12) & 0x3F));
      bytes[2] = (unsigned char)(0x80 | ((c >> 6) & 0x3F));
      bytes[3] = (unsigned char)(0x80 | (c & 0x3F));
      count = 4;
    }
    if (n + (size_t)count + 1 > capacity) return 0;
    for (k = 0; k < count; ++k) out[n++] = (char)bytes[k];
  }
  if (n + 1 > capacity) return 0;
  out[n] = 0;
  return 1;
}

SkBlob* DevTextBlob(const DevText* text) {
  SkBlob* blob = SkBlobCreate(((uint64_t)text->length + 1) * 2);
  uint32_t i;
  if (blob == NULL) return NULL;
  for (i = 0; i < text->length; ++i) {
    SkBlobData(blob)[2 * i] = (unsigned char)text->units[i];
    SkBlobData(blob)[2 * i + 1] = (unsigned char)(text->units[i] >> 8);
  }
  return blob; /* zero-filled: the terminating NUL is there */
}

SkString* DevTextString(const DevText* text) { return SkStringCreate(text->units, text->length); }

void DevTextReason(DevText* reason, const DevText* name, const char* what, uint32_t code) {
  DevTextClear(reason);
  DevTextAppend(reason, name);
  DevTextAscii(reason, ": ");
  DevTextAscii(reason, what);
  DevTextAscii(reason, ": ");
  DevTextSystemError(reason, code);
}
