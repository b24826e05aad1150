/* UTF-16 text of bounded length for the device modules: device names, property paths, settings
 * values and the reasons that go up with SK_EVENT_DEVICE_OFFLINE. Appends that do not fit are cut
 * at the bound; nothing here allocates except DevTextBlob and DevTextString.
 *
 * Plain C. */
#ifndef ORLENDA_DEVICE_TEXT_H
#define ORLENDA_DEVICE_TEXT_H

#include <stddef.h>
#include <stdint.h>

#include "skein/component.h"

#ifdef __cplusplus
extern "C" {
#endif

#define DEV_TEXT_UNITS 512

typedef struct DevText {
  uint32_t length;
  uint16_t units[DEV_TEXT_UNITS];
} DevText;

void DevTextClear(DevText* text);
void DevTextAscii(DevText* text, const char* ascii);
void DevTextUnits(DevText* text, const uint16_t* units, uint32_t count);
void DevTextAppend(DevText* text, const DevText* other);
void DevTextNumber(DevText* text, uint32_t value);

/* Nonzero when the text equals `ascii`, ignoring the case of ASCII letters. */
int DevTextIsAscii(const DevText* text, const char* ascii);
/* The text as a decimal number (blanks around it allowed); nonzero on success. */
int DevTextToNumber(const DevText* text, uint32_t* value);
/* The text as NUL-terminated UTF-8 in `out` (of `capacity` bytes); nonzero when it fit. */
int DevTextToUtf8(const DevText* text, char* out, size_t capacity);
/* A blob of the text as UTF-16 with a terminating NUL; NULL when memory is short. */
SkBlob* DevTextBlob(const DevText* text);
/* A boundary string of the text, for the host table; NULL when memory is short. */
SkString* DevTextString(const DevText* text);

/* "<name>: <what>: <system text> (error <code>)", the form of every offline reason. */
void DevTextReason(DevText* reason, const DevText* name, const char* what, uint32_t code);

#ifdef __cplusplus
}
#endif

#endif /* ORLENDA_DEVICE_TEXT_H */
