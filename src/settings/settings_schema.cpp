#include "settings/settings_schema.h"

#include "platform/resource.h"

namespace orlenda {

bool LoadSettingsSchema(const uint8_t** data, std::size_t* size) {
  return platform::FindModuleResource(platform::kResourceTypeHtml, kSettingsSchemaResourceId, data,
                                      size);
}

}  // namespace orlenda
