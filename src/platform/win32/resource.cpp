#include "platform/resource.h"

#include "platform/win32/windows.h"

namespace orlenda::platform {

bool FindModuleResource(uint32_t type, uint32_t id, const uint8_t** data, std::size_t* size) {
  *data = nullptr;
  *size = 0;
  // Numeric identifiers are 16-bit; a larger number would be taken for a pointer to a name.
  if (type == 0 || type > 0xFFFF || id == 0 || id > 0xFFFF) return false;
  HRSRC found = FindResourceW(nullptr, MAKEINTRESOURCEW(id), MAKEINTRESOURCEW(type));
  if (found == nullptr) return false;
  // A loaded resource of the executable is part of its mapped image: nothing to unlock or free.
  HGLOBAL loaded = LoadResource(nullptr, found);
  if (loaded == nullptr) return false;
  const void* bytes = LockResource(loaded);
  if (bytes == nullptr) return false;
  *data = static_cast<const uint8_t*>(bytes);
  *size = SizeofResource(nullptr, found);
  return true;
}

}  // namespace orlenda::platform
