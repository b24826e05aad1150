// Pipe names on Windows, shared by the pipe bodies: the shared code gives a bare name, the system
// wants "\\.\pipe\<name>".
#pragma once

#include <cstddef>

namespace orlenda::platform {

constexpr std::size_t kMaxPipeName = 256;  // the system's limit, prefix included

// "\\.\pipe\<name>" into `out` (kMaxPipeName units); false when empty or too long.
inline bool FullPipeName(const char16_t* name, wchar_t* out) {
  static constexpr wchar_t kPipePrefix[] = L"\\\\.\\pipe\\";
  if (name == nullptr || name[0] == 0) return false;
  std::size_t used = 0;
  for (const wchar_t* c = kPipePrefix; *c != 0; ++c) out[used++] = *c;
  for (const char16_t* c = name; *c != 0; ++c) {
    if (used + 1 >= kMaxPipeName) return false;
    out[used++] = static_cast<wchar_t>(*c);
  }
  out[used] = 0;
  return true;
}

}  // namespace orlenda::platform
