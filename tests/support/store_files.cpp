#include "support/store_files.h"

#include "platform/file.h"
#include "settings/property_handler.h"

namespace orlenda::testing {

WString StorePath(const char16_t* name) {
  CPropertyHandler probe{WString(name)};
  return probe.file_path();
}

void RemoveStoreFiles() {
  for (const char16_t* name : {u"Orlenda.configuration", u"Orlenda.properties"}) {
    const WString path = StorePath(name);
    platform::RemoveFile(path.c_str());
    platform::RemoveFile((path + u".bad").c_str());
  }
}

}  // namespace orlenda::testing
