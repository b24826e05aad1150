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

uint32_t GetCommonAppDataFolder(FolderVersion version, char16_t* buffer, std::size_t capacity,
                                std::size_t* length) {
  wchar_t path[MAX_PATH];
  const DWORD type = version == FolderVersion::kCurrent ? SHGFP_TYPE_CURRENT : SHGFP_TYPE_DEFAULT;
  const HRESULT result =
      SHGetFolderPathW(nullptr, CSIDL_COMMON_APPDATA | CSIDL_FLAG_CREATE, nullptr, type, path);
  if (FAILED(result)) return static_cast<uint32_t>(result);
  std::size_t n = 0;
  while (path[n] != 0) ++n;
  if (n + 1 > capacity) return static_cast<uint32_t>(E_NOT_SUFFICIENT_BUFFER);
  for (std::size_t i = 0; i <= n; ++i) buffer[i] = static_cast<char16_t>(path[i]);
  *length = n;
  return 0;
}

char16_t PathSeparator() { return u'\\'; }

}  // namespace orlenda::platform
