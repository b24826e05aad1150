// The table of resources compiled into the platform library on POSIX. The build generates its
// definition (cmake/EmbedFile.cmake) from the files that the Windows build links as resources.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orlenda::platform {

struct EmbeddedResource {
  uint32_t type;
  uint32_t id;
  const uint8_t* data;
  std::size_t size;
};

extern const EmbeddedResource kEmbeddedResources[];
extern const std::size_t kEmbeddedResourceCount;

}  // namespace orlenda::platform
