#include "platform/resource.h"

#include "platform/posix/embedded_resources.h"

namespace orlenda::platform {

bool FindModuleResource(uint32_t type, uint32_t id, const uint8_t** data, std::size_t* size) {
  *data = nullptr;
  *size = 0;
  for (std::size_t i = 0; i < kEmbeddedResourceCount; ++i) {
    const EmbeddedResource& resource = kEmbeddedResources[i];
    if (resource.type == type && resource.id == id) {
      *data = resource.data;
      *size = resource.size;
      return true;
    }
  }
  return false;
}

}  // namespace orlenda::platform
