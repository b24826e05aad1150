/* Reading a port's settings through the host table (device_port.h). */
#include "device_port.h"

extern const SkHostTable* g_device_host; /* device_port.c */

static SkString* SettingPath(const DevText* path, const char* name) {
  DevText full = *path;
  DevTextAscii(&full, "/");
  DevTextAscii(&full, name);
  return DevTextString(&full);
}

static int ReadNumber(const DevText* path, const char* name, uint32_t* value) {
  SkString* request;
  if (g_device_host == NULL || g_device_host->GetNumber == NULL) return 0;
  request = SettingPath(path, name);
  return request != NULL && g_device_host->GetNumber(request, value);
}

static int ReadString(const DevText* path, const char* name, DevText* value) {
  SkString* request;
  SkString* answer = NULL;
  DevTextClear(value);
  if (g_device_host == NULL || g_device_host->GetString == NULL) return 0;
  request = SettingPath(path, name);
  if (request == NULL || !g_device_host->GetString(request, &answer)) return 0;
  if (answer != NULL) DevTextUnits(value, answer->text, answer->length);
  SkStringFree(answer);
  return 1;
}

int DevGetString(const DevText* path, const char* name, DevText* value) {
  uint32_t number;
  if (ReadString(path, name, value)) return 1;
  if (ReadNumber(path, name, &number)) {
    DevTextNumber(value, number);
    return 1;
  }
  return 0;
}

uint32_t DevGetNumber(const DevText* path, const char* name, uint32_t fallback, uint32_t minimum) {
  uint32_t value = fallback;
  DevText text;
  if (!ReadNumber(path, name, &value)) {
    /* A number kept as a string (a settings editor may store "9600") counts too. */
    if (!ReadString(path, name, &text) || !DevTextToNumber(&text, &value)) value = fallback;
  }
  return value < minimum ? minimum : value;
}
