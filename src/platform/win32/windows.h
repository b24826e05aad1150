// The one place that includes the Windows headers for the platform bodies.
#pragma once

#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#ifndef NOMINMAX
#define NOMINMAX
#endif
#include <windows.h>

namespace orlenda::platform {

// UTF-16 text of the shared code as the Windows API's wide characters (both are 16-bit units).
inline const wchar_t* AsWide(const char16_t* s) { return reinterpret_cast<const wchar_t*>(s); }
inline wchar_t* AsWide(char16_t* s) { return reinterpret_cast<wchar_t*>(s); }

}  // namespace orlenda::platform
