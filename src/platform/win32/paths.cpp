#include "platform/paths.h"

#include "platform/win32/windows.h"

// After the gatekeeper, so the shell header sees the same Windows configuration.
#include <shlobj.h>

namespace orlenda::platform {

std::size_t CommonAppDataFolder(char16_t* buffer, std::size_t capacity) {
  wchar_t path[MAX_PATH];
  if (capacity > 0) buffer[0] = 0;
  if (FAILED(SHGetFolderPathW(nullptr, CSIDL_COMMON_APPDATA, nullptr, SHGFP_TYPE_CURRENT, path))) {
    return 0;
  }
  std::size_t length = 0;
  while (path[length] != 0) ++length;
  if (length + 1 > capacity) return 0;
  for (std::size_t i = 0; i <= length; ++i) buffer[i] = static_cast<char16_t>(path[i]);
  return length;
}

char16_t PathSeparator() { return u'\\'; }

}  // namespace orlenda::platform
