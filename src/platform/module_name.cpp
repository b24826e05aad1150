// ResolveModuleName: the same on both platforms, on top of the executable's path and the file
// system.
#include "platform/file.h"
#include "platform/module.h"
#include "platform/paths.h"

namespace orlenda::platform {
namespace {

bool IsSeparator(char16_t c) { return c == u'/' || (PathSeparator() == u'\\' && c == u'\\'); }

// `folder` (its length), a separator, `name`, and `extension` when `name` has none.
std::size_t Join(const char16_t* folder, std::size_t folder_length, const char16_t* name, const char16_t* extension,
                 char16_t* out, std::size_t capacity) {
  std::size_t used = 0;
  auto put = [&](char16_t c) {
    if (used + 1 >= capacity) return false;
    out[used++] = c;
    return true;
  };
  for (std::size_t i = 0; i < folder_length; ++i) {
    if (!put(folder[i])) return 0;
  }
  if (!put(PathSeparator())) return 0;
  bool dotted = false;
  for (const char16_t* c = name; *c != 0; ++c) {
    dotted = dotted || *c == u'.';
    if (!put(*c)) return 0;
  }
  for (const char16_t* c = extension; !dotted && *c != 0; ++c) {
    if (!put(*c)) return 0;
  }
  out[used] = 0;
  return used;
}

}  // namespace

std::size_t ResolveModuleName(const char16_t* name, char16_t* out, std::size_t capacity) {
  if (capacity > 0) out[0] = 0;
  if (name == nullptr || name[0] == 0) return 0;
  std::size_t length = 0;
  bool bare = true;
  for (; name[length] != 0; ++length) bare = bare && !IsSeparator(name[length]);
  if (!bare) {
    if (length + 1 > capacity) return 0;
    for (std::size_t i = 0; i <= length; ++i) out[i] = name[i];
    return length;
  }
  char16_t executable[kMaxPathChars];
  std::size_t folder = ExecutablePath(executable, kMaxPathChars);
  while (folder > 0 && !IsSeparator(executable[folder - 1])) --folder;
  if (folder == 0) return 0;
  const std::size_t beside = Join(executable, folder - 1, name, ModuleExtension(), out, capacity);
  if (beside == 0 || PathExists(out)) return beside;
  char16_t system[kMaxPathChars];
  const std::size_t system_length = SystemModuleFolder(system, kMaxPathChars);
  if (system_length == 0) return beside;  // not there: the load fails with the usual message
  const std::size_t in_system = Join(system, system_length, name, ModuleExtension(), out, capacity);
  if (in_system != 0 && PathExists(out)) return in_system;
  return Join(executable, folder - 1, name, ModuleExtension(), out, capacity);
}

}  // namespace orlenda::platform
